/// Calls that wait until others have ended.
#include "tarn/ext/in_flight_limit.h"

#include "client/client_fixture.h"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using ext::in_flight_limit;
using ext::reply;
using ext::result;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

class InFlightLimit : public client_on_bus_test {
protected:
    void SetUp() override {
        start_service();
        connect();
    }

    /// A call that is answered never.
    utils::link hold(in_flight_limit& some) {
        return some.call("demo", "late", {{"ms", 600000}}, 0s,
                         [this](const result<reply>& held) { failures_.push_back(held.error()); });
    }

    utils::link echo(in_flight_limit& some, int n) {
        return some.call("demo", "echo", {{"n", n}}, 0s, [this](result<reply> answer) {
            answer ? answers_.push_back(answer->at<int>("n")) : failures_.push_back(answer.error());
        });
    }

    std::vector<int> answers_;
    std::vector<std::error_code> failures_;
};

TEST_F(InFlightLimit, MakesAtMostThatManyCallsAtATimeInTheirOrder) {
    in_flight_limit two(bus(), 2);
    for (int n = 0; n < 5; ++n) {
        EXPECT_TRUE(echo(two, n).active());
    }
    EXPECT_EQ(two.running(), 2U);
    EXPECT_EQ(two.waiting(), 3U);
    run_until([&] {
        EXPECT_LE(two.running(), 2U);
        return answers_.size() == 5;
    });
    EXPECT_THAT(answers_, ElementsAre(0, 1, 2, 3, 4));
    EXPECT_EQ(two.running(), 0U);
    EXPECT_EQ(two.waiting(), 0U);
}

TEST_F(InFlightLimit, AReleasedCallThatWaitsIsNeverMade) {
    in_flight_limit one(bus(), 1);
    auto first = hold(one);
    auto second = echo(one, 2);
    auto third = echo(one, 3);
    second.release();
    EXPECT_FALSE(second.active());
    EXPECT_TRUE(third.active());
    EXPECT_EQ(one.waiting(), 1U);
    first.release();
    run_until([&] { return !answers_.empty(); });
    EXPECT_THAT(answers_, ElementsAre(3));
    EXPECT_FALSE(third.active());
    EXPECT_TRUE(failures_.empty());
}

TEST_F(InFlightLimit, AReleasedCallThatRunsGivesItsPlaceBack) {
    in_flight_limit one(bus(), 1);
    auto first = hold(one);
    EXPECT_TRUE(first.active());
    first.release();
    EXPECT_FALSE(first.active());
    EXPECT_EQ(one.running(), 0U);
    echo(one, 1);
    run_until([&] { return !answers_.empty(); });
    EXPECT_TRUE(failures_.empty());
}

TEST_F(InFlightLimit, AHandlerThatThrowsGivesItsPlaceBack) {
    in_flight_limit one(bus(), 1);
    one.call("demo", "echo", 0s,
             [](const result<reply>&) { throw std::runtime_error("thrown by the handler"); });
    echo(one, 1);
    EXPECT_THROW(loop()->run_until([&] { return !answers_.empty(); }, limit), std::runtime_error);
    run_until([&] { return !answers_.empty(); });
    EXPECT_EQ(one.running(), 0U);
}

TEST_F(InFlightLimit, AHandlerMayCallAgain) {
    in_flight_limit one(bus(), 1);
    one.call("demo", "echo", 0s, [&](const result<reply>&) {
        EXPECT_EQ(one.running(), 0U) << "its own place is free already";
        echo(one, 2);
    });
    echo(one, 1);
    run_until([&] { return answers_.size() == 2; });
    EXPECT_THAT(answers_, ElementsAre(1, 2)) << "behind those that wait";
}

TEST_F(InFlightLimit, DestroyingItEndsEverything) {
    const auto owned = std::make_shared<int>();
    utils::link running;
    utils::link waiting;
    {
        in_flight_limit one(bus(), 1);
        running = one.call("demo", "late", 0s, [owned](const result<reply>&) { FAIL(); });
        waiting = one.call("demo", "echo", 0s, [owned](const result<reply>&) { FAIL(); });
        EXPECT_EQ(owned.use_count(), 3);
    }
    EXPECT_FALSE(running.active());
    EXPECT_FALSE(waiting.active());
    EXPECT_EQ(owned.use_count(), 1);
    in_flight_limit behind(bus(), 1);
    behind.call("demo", "late", {{"ms", 300}}, 0s,
                [this](const result<reply>&) { answers_.push_back(1); });
    run_until([&] { return !answers_.empty(); });
}

TEST_F(InFlightLimit, ItMayBeDestroyedByAHandler) {
    auto one = std::make_unique<in_flight_limit>(bus(), 1);
    bool called = false;
    one->call("demo", "echo", 0s, [&](const result<reply>&) {
        one.reset();
        called = true;
    });
    echo(*one, 1);
    run_until([&] { return called; });
    settle();
    EXPECT_TRUE(answers_.empty());
}

TEST_F(InFlightLimit, CancelEndsTheCallsUnderWayAndThoseThatWaitFail) {
    in_flight_limit two(bus(), 2);
    hold(two);
    hold(two);
    echo(two, 1);
    echo(two, 2);
    echo(two, 3);
    bus().cancel();
    EXPECT_THAT(failures_, ElementsAre(make_error_code(error::generic::aborted),
                                       make_error_code(error::generic::aborted)));
    run_until([&] { return failures_.size() == 5; });
    EXPECT_EQ(failures_.back(), msg::connection_failed);
    EXPECT_EQ(two.running(), 0U);
}

TEST_F(InFlightLimit, ATimeLimitCountsFromTheStartOfTheCall) {
    in_flight_limit one(bus(), 1);
    auto first = hold(one);
    one.call("demo", "late", {{"ms", 600000}}, 500ms,
             [this](const result<reply>& late) { failures_.push_back(late.error()); });
    loop()->advance(5s);
    EXPECT_TRUE(failures_.empty());
    first.release();
    settle();
    EXPECT_THAT(loop()->armed_timers(), ElementsAre(1s));
    loop()->advance(1s);
    run_until([&] { return !failures_.empty(); });
    EXPECT_EQ(failures_.back(), msg::timeout);
}

TEST_F(InFlightLimit, ManyThreadsShareOne) {
    constexpr int calls = 50;
    in_flight_limit three(bus(), 3);
    std::atomic<int> ended{0};
    std::atomic<int> released{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int n = 0; n < calls; ++n) {
                auto link = three.call("demo", "echo", 5s, [&](const result<reply>& answer) {
                    EXPECT_TRUE(answer) << answer.message();
                    ++ended;
                });
                if (n % 5 == 0) {
                    link.release();
                    ++released;
                }
            }
        });
    }
    for (std::thread& one : threads) {
        // The loop runs here only; the calls need not wait for one another's answers.
        one.join();
    }
    run_until([&] { return three.running() == 0 && three.waiting() == 0; });
    EXPECT_EQ(ended + released, 4 * calls);
}

TEST_F(InFlightLimit, TakesStructuresAndGivesThemAsCallDoes) {
    in_flight_limit one(bus(), 1);
    std::map<std::string, int> seen;
    one.call("demo", "echo", std::map<std::string, int>{{"a", 1}}, 5s,
             [&](const result<std::map<std::string, int>>& answer) { seen = *answer; });
    run_until([&] { return !seen.empty(); });
    EXPECT_EQ(seen.at("a"), 1);
    EXPECT_THROW(in_flight_limit(bus(), 0), std::invalid_argument);
}

} // namespace
} // namespace tarn::test
