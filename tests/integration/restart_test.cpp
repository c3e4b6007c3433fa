/// The bus goes away and comes back, again and again, while two libtarn processes call each other.
#include "integration/processes.h"

#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

class Restart : public processes_test {
protected:
    void SetUp() override {
        relay_ = start_relay();
        const client::method_map methods{
            {"hold", {[this](const context& ctx) { held_.push_back(ctx); }, {}}},
            {"echo", {[](const context& ctx) { ctx->send(ctx->args, {}); }, {}}},
        };
        states_ = bus().notify_on_state_change([methods](client::state state) {
            if (state == client::state::connected) {
                bus().add_object("here", methods, {});
            }
        });
        connection_ = bus().auto_connect([](long long) { return seconds(1); });
    }

    /// A call to the relay, which calls this process from inside its handler.
    void start_call(const char* method) {
        calls_.emplace_back();
        bus().invoke("relay", "forward", {{"path", "here"}, {"method", method}},
                     calls_.back().handler(), seconds(0));
    }

    /// Has a call open on both sides: this process waits for the relay, and the relay for this
    /// process. Both need some time to be back on the bus.
    void open_call() {
        const std::size_t before = held_.size();
        while (held_.size() == before && !HasFatalFailure()) {
            // A call without a connection fails at once, and no time would pass.
            run_hurried_until([] { return bus().get_state() == client::state::connected; });
            start_call("hold");
            const auto& last = calls_.back();
            run_hurried_until([&] { return held_.size() > before || last.reported(); });
        }
    }

    std::unique_ptr<child_process> relay_;
    std::vector<context> held_;
    std::list<call_outcome> calls_;
    utils::scoped_link states_;
    utils::scoped_link connection_;
};

TEST_F(Restart, FiftyRestartsEndEveryOpenCallOnBothSidesExactlyOnce) {
    for (int round = 0; round < 50; ++round) {
        ASSERT_NO_FATAL_FAILURE(open_call()) << "round " << round;
        const call_outcome& open = calls_.back();
        for (int n = 0; n < 5; ++n) {
            start_call("echo"); // somewhere on its way when the bus goes
        }
        ASSERT_FALSE(open.reported());
        daemon_.restart();
        ASSERT_NO_FATAL_FAILURE(run_hurried_until([&] { return open.reported(); }));
        EXPECT_EQ(open.code(), make_error_code(msg::connection_failed));
        EXPECT_TRUE(held_.back()->expired());
    }
    for (const auto& done : calls_) {
        ASSERT_NO_FATAL_FAILURE(run_hurried_until([&] { return done.reported(); }));
    }

    ASSERT_NO_FATAL_FAILURE(open_call());
    held_.back()->respond(msg::success);
    ASSERT_NO_FATAL_FAILURE(run_hurried_until([&] { return calls_.back().reported(); }));
    EXPECT_EQ(calls_.back().code(), make_error_code(msg::success))
        << "the call through the last bus";

    const auto tally = call("relay", "tally");
    ASSERT_EQ(tally.code(), make_error_code(msg::success));
    const auto begun = tally.reply().find("begun")->second.get<int>();
    EXPECT_EQ(tally.reply().find("ended")->second.get<int>(), begun) << "on the other side";
    EXPECT_GE(begun, 51);
    for (const auto& done : calls_) {
        EXPECT_EQ(done.count(), 1U);
        EXPECT_THAT(done.code(), ::testing::AnyOf(make_error_code(msg::success),
                                                  make_error_code(msg::connection_failed),
                                                  make_error_code(msg::not_found)));
    }
    bus().cancel();
    expect_orderly_end(*relay_);
}

} // namespace
} // namespace tarn::test
