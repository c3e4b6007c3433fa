/// News that come with the answer to a request: libubus keeps them, and hands them out when the
/// request is over, or even the connection.
#include "robustness/misbehaving_bus.h"

#include "tarn/bus.h"

#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using answer = scripted_bus::answer;
using afterwards = scripted_bus::afterwards;
using ::testing::ElementsAre;

class LateNews : public misbehaving_bus_test {
protected:
    void publish(const char* path) {
        outcome ready;
        bus().add_object(path, {}, ready.handler());
        run_until([&] { return ready.reported(); });
        ASSERT_FALSE(ready.code()) << ready.code().message();
    }

    /// Tells the client's listener just ahead of a healthy answer.
    scripted_bus::reaction telling_before(const char* event) {
        return [=](const wire::bytes& healthy, const wire::received&) {
            return answer{scripted_.remote_event(event) + healthy};
        };
    }
    /// The same in the same breath behind it.
    scripted_bus::reaction telling_after(const char* event) {
        return [=](const wire::bytes& healthy, const wire::received&) {
            return answer{healthy + scripted_.remote_event(event)};
        };
    }

    /// A request that libubus waits for.
    static void look_up() {
        bus().get_bus().objects(scripted_bus::remote_path, [](const auto&, const auto&) {});
    }

    tarn::bus::presence_handler recorder() {
        return [this](tarn::bus::presence what, const std::string& path, std::uint32_t) {
            changes_.push_back((what == tarn::bus::presence::appeared ? "+" : "-") + path);
        };
    }

    std::vector<std::string> changes_;
};

TEST_F(LateNews, AWaitGoesOnWhenOneObjectGoesWhileTheNextIsLookedFor) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_NO_FATAL_FAILURE(publish("zz.own"));
    outcome waited;
    scripted_.on_next(wire::lookup, telling_before(scripted_bus::gone), 1);
    const utils::scoped_link waiting = bus().get_bus().wait_for(
        {scripted_bus::remote_path, "zz.own"}, std::chrono::seconds::zero(), waited.handler());
    ASSERT_TRUE(scripted_.wait_for_reaction());
    catch_up();
    EXPECT_EQ(waited.count(), 0U);

    scripted_.send([this] { return scripted_.remote_event(scripted_bus::appeared); });
    run_until([&] { return waited.reported(); });
    EXPECT_FALSE(waited.code()) << waited.code().message();
    catch_up();
    EXPECT_EQ(waited.count(), 1U);
}

TEST_F(LateNews, AreOlderThanTheAnswerThatTheyCameAheadOf) {
    ASSERT_NO_FATAL_FAILURE(connect());
    outcome waited;
    // One of the two is there at a time, and the answer is about the last of these.
    scripted_.on_next(wire::lookup, [this](const wire::bytes& found, const auto&) {
        constexpr std::uint32_t other = scripted_bus::remote_id + 1;
        return answer{scripted_.remote_event(scripted_bus::gone, other) +
                      scripted_.remote_event(scripted_bus::appeared, other + 1, "zz") +
                      scripted_.remote_event(scripted_bus::gone, other + 1, "zz") +
                      scripted_.remote_event(scripted_bus::appeared) + found};
    });
    const utils::scoped_link waiting = bus().get_bus().wait_for(
        {scripted_bus::remote_path, "zz"}, std::chrono::seconds::zero(), waited.handler());
    ASSERT_TRUE(scripted_.wait_for_reaction());
    catch_up();
    EXPECT_EQ(waited.count(), 0U);

    scripted_.send([this] {
        return scripted_.remote_event(scripted_bus::appeared, scripted_bus::remote_id + 3, "zz");
    });
    run_until([&] { return waited.reported(); });
    EXPECT_FALSE(waited.code()) << waited.code().message();
}

TEST_F(LateNews, AnObjectThatGoesWhileAWatchLooksForItDoesNotStay) {
    ASSERT_NO_FATAL_FAILURE(connect());
    scripted_.on_next(wire::lookup, telling_after(scripted_bus::gone));
    const utils::scoped_link watching =
        bus().get_bus().on_object(scripted_bus::remote_path, recorder());
    ASSERT_TRUE(scripted_.wait_for_reaction());
    catch_up();
    EXPECT_THAT(changes_, ElementsAre("+scripted.remote", "-scripted.remote"));
}

TEST_F(LateNews, AreReportedBeforeTheAnswerThatTheyCameAheadOf) {
    ASSERT_NO_FATAL_FAILURE(connect());
    const utils::scoped_link watching =
        bus().get_bus().on_object(scripted_bus::remote_path, recorder());
    run_until([this] { return !changes_.empty(); });
    scripted_.on_next(wire::lookup, telling_before(scripted_bus::gone));
    bus().get_bus().objects(scripted_bus::remote_path, [this](const auto&, const auto&) {
        changes_.emplace_back("looked up");
    });
    run_until([this] { return changes_.back() == "looked up"; });
    EXPECT_THAT(changes_, ElementsAre("+scripted.remote", "-scripted.remote", "looked up"));
}

TEST_F(LateNews, AnObjectThatAppearsWithTheEndOfTheConnectionDoesNotStay) {
    ASSERT_NO_FATAL_FAILURE(connect());
    const utils::scoped_link watching = bus().get_bus().on_object("scripted.*", recorder());
    catch_up();
    changes_.clear();
    scripted_.on_next(wire::lookup, [this](const auto&, const auto&) {
        return answer{scripted_.remote_event(scripted_bus::appeared), afterwards::hang_up};
    });
    look_up();
    run_until_state(client::state::disconnected);
    settle();
    EXPECT_TRUE(changes_.empty() || changes_.back() == "-scripted.remote")
        << ::testing::PrintToString(changes_);
}

TEST_F(LateNews, ACallThatArrivesWithTheEndOfTheConnectionIsNotServedAfterIt) {
    ASSERT_NO_FATAL_FAILURE(connect());
    std::vector<std::string> order;
    const utils::scoped_link following = bus().notify_on_state_change([&](client::state now) {
        if (now == client::state::disconnected) {
            order.emplace_back("disconnected");
        }
    });
    outcome ready;
    bus().add_object("late", {{"serve", {[&](const auto&) { order.emplace_back("served"); }, {}}}},
                     ready.handler());
    run_until([&] { return ready.reported(); });
    scripted_.on_next(wire::lookup, [this](const auto&, const auto&) {
        const wire::bytes call = wire::objid(scripted_.newest_object()) + wire::method("serve");
        return answer{scripted_bus::call_message(0x7000, call + wire::data_of({})),
                      afterwards::hang_up};
    });
    look_up();
    run_until([&] { return !order.empty() && order.back() == "disconnected"; });
    settle();
    EXPECT_EQ(order.back(), "disconnected");
}

} // namespace
} // namespace tarn::test
