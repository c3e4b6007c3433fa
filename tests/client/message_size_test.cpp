/// The arithmetic of message sizes, against messages as they go out.
#include "blob/message_size.h"

#include "client/client_fixture.h"
#include "support/scripted_bus.h"
#include "tarn/blob.h"
#include "tarn/error.h"

#include <initializer_list>
#include <memory>
#include <string>

namespace tarn::test {
namespace {

using context = std::shared_ptr<client::exchange_ctx>;

/// Names of these lengths take every amount of padding.
constexpr std::initializer_list<std::size_t> lengths{1, 2, 3, 4, 5, 17, 1000};

static_assert(message_size::limit == 1048576, "the daemon's own number");
static_assert(message_size::call_limit == 1048056, "what client.h tells");
static_assert(message_size::padded(0) == 0 && message_size::padded(1) == 4 &&
                  message_size::padded(4) == 4 && message_size::padded(5) == 8,
              "to the next multiple of four");

class MessageSize : public client_test {
protected:
    void SetUp() override {
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        ASSERT_FALSE(connected.code());
    }

    /// Notes the length of the next message of a type, without the header of its blob.
    void watch(wire::type type) {
        scripted_.on_next(type, [this](const wire::bytes& healthy, const wire::received& request) {
            seen_ = request.raw.size() - sizeof_header;
            return scripted_bus::answer{healthy};
        });
    }
    /// What watch() has seen.
    std::size_t seen() {
        EXPECT_TRUE(scripted_.wait_for_reaction());
        return message_size::padded(seen_);
    }

    static constexpr std::size_t sizeof_header = 8;
    scripted_bus scripted_;
    std::size_t seen_ = 0;
};

/// The length of what is in the message with these fields.
std::size_t data_size(const blob::table& fields) {
    std::size_t size = 0;
    for (const auto& [name, value] : fields) {
        size += message_size::field(name.size(), value.get<std::string>().size() + 1);
    }
    return size;
}

TEST_F(MessageSize, OfACallIsWhatGoesOut) {
    for (const std::size_t length : lengths) {
        const std::string method(length, 'm');
        const blob::table args{{std::string(length, 'f'), blob::attr(std::string(length, 'x'))},
                               {"more", blob::attr("text")}};
        call_outcome done;
        watch(wire::invoke);
        bus().invoke(scripted_bus::remote_path, method, args, done.handler(),
                     std::chrono::seconds(0));
        run_until([&] { return done.reported(); });
        EXPECT_EQ(seen(), message_size::call(length, data_size(args)));
    }
}

TEST_F(MessageSize, OfALookupIsWhatGoesOut) {
    for (const std::size_t length : lengths) {
        call_outcome done;
        watch(wire::lookup);
        bus().invoke(std::string(length, 'p'), "ping", {}, done.handler(), std::chrono::seconds(0));
        run_until([&] { return done.reported(); });
        EXPECT_EQ(seen(), message_size::lookup(length));
    }
}

TEST_F(MessageSize, OfAPublicationIsWhatGoesOut) {
    for (const std::size_t length : lengths) {
        const std::string name(length, 'n');
        client::method_map methods;
        methods[name + "1"] = {};
        methods[name + "2"].second = {{name, typeid(std::string)}, {name + "3", typeid(bool)}};
        std::map<std::string, client::method_policy> policies;
        for (const auto& method : methods) {
            policies[method.first] = method.second.second;
        }
        outcome added;
        watch(wire::add_object);
        bus().add_object(name, methods, added.handler());
        run_until([&] { return added.reported(); });
        EXPECT_EQ(seen(), message_size::publication(name, policies));
    }
}

TEST_F(MessageSize, OfAReplyIsWhatGoesOut) {
    context kept;
    const auto keep = [&kept](const context& call) {
        kept = call;
    };
    outcome added;
    bus().add_object("own", {{"serve", {keep, {}}}}, added.handler());
    run_until([&] { return added.reported(); });
    for (const std::size_t length : lengths) {
        kept.reset();
        scripted_.call("own", "serve");
        run_until([&] { return kept != nullptr; });
        const blob::table reply{{std::string(length, 'f'), blob::attr(std::string(length, 'x'))}};
        watch(wire::data);
        kept->send(reply, {});
        EXPECT_EQ(seen(), message_size::reply(data_size(reply)));
    }
}

} // namespace
} // namespace tarn::test
