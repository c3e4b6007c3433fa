/// Memory that runs out in an operation of tarn::bus, at every single allocation in turn: on the
/// application's thread it throws and has not begun, on the loop thread it is reported or counted.
#include "client/client_fixture.h"
#include "client/failing_in_turn.h"

#include "tarn/bus.h"
#include "tarn/error.h"

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

class BusMemory : public client_on_bus_test {
protected:
    void SetUp() override {
        connect();
        outcome added;
        bus().add_object("own", {}, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code());
    }
    static tarn::bus& events() { return bus().get_bus(); }
};

TEST_F(BusMemory, AListenerThatCannotBeMadeThrowsAndLeavesNothingBehind) {
    const auto watched = std::make_shared<int>(0);
    const bus::event_handler handler = [watched](const std::string&, const bus::table&) {
    };
    utils::scoped_link started;
    const auto failed = fail_each_here(
        [&] { started = events().listen("a pattern longer than a short text", handler); });
    EXPECT_GT(failed, 1U);
    started.release();
    settle();
    EXPECT_EQ(watched.use_count(), 2);
}

TEST_F(BusMemory, ASubscriptionThatCannotBeMadeThrowsAndLeavesNothingBehind) {
    const auto watched = std::make_shared<int>(0);
    const bus::subscription_handler handler = [watched](bus::subscription, const std::error_code&) {
    };
    utils::scoped_link started;
    const auto failed = fail_each_here(
        [&] { started = events().subscribe("a path longer than a short text", {}, handler); });
    EXPECT_GT(failed, 1U);
    started.release();
    settle();
    EXPECT_EQ(watched.use_count(), 2);
}

TEST_F(BusMemory, AWaitThatCannotBeMadeThrowsAndItsHandlerIsNotCalled) {
    outcome done;
    const auto handler = done.handler();
    const std::vector<std::string> paths{"a path longer than a short text", "own"};
    utils::scoped_link started;
    const auto failed =
        fail_each_here([&] { started = events().wait_for(paths, seconds(3), handler); });
    EXPECT_GT(failed, 1U);
    EXPECT_TRUE(started.active());
    settle();
    EXPECT_FALSE(done.reported());
}

TEST_F(BusMemory, ANotificationThatCannotBeMadeThrowsAndItsHandlerIsNotCalled) {
    outcome done;
    const auto handler = done.handler();
    const bus::table data{{"text", std::string(3000, 'x')}};
    std::size_t begun = 0;
    const auto failed = fail_each_here([&] {
        events().notify("own", "a method longer than a short text", data, handler);
        ++begun;
    });
    EXPECT_GT(failed, 1U);
    run_until([&] { return done.count() == begun; });
    settle();
    EXPECT_EQ(done.count(), 1U);
    EXPECT_FALSE(done.code());
}

TEST_F(BusMemory, ALookUpReportsThatMemoryRanOutOnTheLoopThread) {
    const auto failed = fail_each_on_loop_thread([&] {
        bool reported = false;
        events().objects(
            "*", [&](const std::vector<bus::object_info>& found, const std::error_code& code) {
                reported = true;
                EXPECT_TRUE(code ? code == msg::no_memory && found.empty() : found.size() == 1)
                    << code.message();
            });
        run_until([&] { return reported; });
    });
    EXPECT_GT(failed, 1U);
}

TEST_F(BusMemory, AnEventIsSentOrReportedWhenMemoryRunsOutOnTheLoopThread) {
    const auto failed = fail_each_on_loop_thread([&] {
        outcome sent;
        events().send_event("an event longer than a short text", {{"text", std::string(300, 'x')}},
                            sent.handler());
        run_until([&] { return sent.reported(); });
        EXPECT_TRUE(!sent.code() || sent.code() == msg::no_memory ||
                    sent.code() == msg::parse_error)
            << sent.code().message();
    });
    EXPECT_GT(failed, 1U);
}

TEST_F(BusMemory, ANotificationIsSentOrReportedWhenMemoryRunsOutOnTheLoopThread) {
    const auto failed = fail_each_on_loop_thread([&] {
        bool reported = false;
        events().notify("own", "a method longer than a short text",
                        {{"text", std::string(300, 'x')}}, seconds(0),
                        [&](const auto&, const std::error_code& code) {
                            reported = true;
                            EXPECT_TRUE(!code || code == msg::no_memory || code == msg::parse_error)
                                << code.message();
                        });
        run_until([&] { return reported; });
    });
    EXPECT_GT(failed, 1U);
}

TEST_F(BusMemory, AListenerSurvivesEventsForWhichMemoryRanOut) {
    std::size_t heard = 0;
    bool heard_one_more = false;
    std::uint64_t missed = 0;
    bus::options how;
    how.on_dropped = [&](std::uint64_t count) {
        missed += count;
    };
    const auto on_event = [&](const std::string&, const bus::table& about) {
        ++heard;
        heard_one_more |= about.find("path")->second.get<std::string>() == "one more";
    };
    const utils::scoped_link listening = events().listen("ubus.object.add", on_event, how);
    settle();
    std::size_t expected = 0;
    const auto failed = fail_each_on_loop_thread([&] {
        outcome added;
        bus().add_object("an object longer than a short text", {}, added.handler());
        run_until([&] { return added.reported(); });
        if (!added.code()) {
            ++expected;
            outcome removed;
            bus().del_object("an object longer than a short text", true, removed.handler());
            run_until([&] { return removed.reported(); });
        }
        EXPECT_EQ(bus().get_state(), client::state::connected);
    });
    EXPECT_GT(failed, 1U);
    settle();
    EXPECT_LE(heard, expected);
    // libubus itself may lose one that it has no memory to queue; not the listener with it.
    // Events that came during a request may still be on their way.
    bus().add_object("one more", {}, {});
    run_until([&] { return heard_one_more; });
}

} // namespace
} // namespace tarn::test
