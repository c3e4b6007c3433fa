/// Calls that end before their answer are given up at libubus too, or it would keep them for good.
/// The linker leads the library's calls of ubus_abort_request() here.
#include "client/client_fixture.h"

#include "tarn/error.h"

#include <atomic>

struct ubus_context;
struct ubus_request;

namespace {
std::atomic<int> aborts{0};
} // namespace

extern "C" {
void __real_ubus_abort_request(ubus_context* context, ubus_request* request);
void __wrap_ubus_abort_request(ubus_context* context, ubus_request* request);
void __wrap_ubus_abort_request(ubus_context* context, ubus_request* request) {
    ++aborts;
    __real_ubus_abort_request(context, request);
}
}

namespace tarn::test {
namespace {

using std::chrono::seconds;

class Abort : public client_on_bus_test {
protected:
    void SetUp() override {
        connect();
        const auto keep = [this](const auto& ctx) {
            kept_.push_back(ctx);
        };
        bus().add_object("own", {{"hold", {keep, {}}}}, {});
    }
    void TearDown() override {
        kept_.clear();
        client_on_bus_test::TearDown();
    }

    /// A call that has reached its object and is not answered.
    utils::link open_call(seconds timeout, call_outcome& done) {
        const auto before = kept_.size();
        const auto link = bus().invoke("own", "hold", {}, done.handler(), timeout);
        run_until([&] { return kept_.size() > before; });
        settle();
        // libubus uses it itself, for its synchronous requests.
        aborts = 0;
        return link;
    }

    std::vector<std::shared_ptr<client::exchange_ctx>> kept_;
};

TEST_F(Abort, ACallThatExpiresIsGivenUpAtLibubus) {
    call_outcome done;
    open_call(seconds(1), done);
    loop()->advance(seconds(1));
    run_until([&] { return done.reported(); });
    EXPECT_EQ(done.code(), make_error_code(error::msg::timeout));
    settle();
    EXPECT_EQ(aborts, 1);
}

TEST_F(Abort, ACallWhoseLinkIsReleasedIsGivenUpAtLibubus) {
    call_outcome done;
    open_call(seconds(0), done).release();
    settle();
    EXPECT_EQ(aborts, 1);
    EXPECT_FALSE(done.reported());
}

TEST_F(Abort, ACallThatIsAnsweredIsNotAborted) {
    call_outcome done;
    auto link = open_call(seconds(0), done);
    kept_.clear();
    run_until([&] { return done.reported(); });
    link.release();
    settle();
    EXPECT_EQ(aborts, 0);
}

} // namespace
} // namespace tarn::test
