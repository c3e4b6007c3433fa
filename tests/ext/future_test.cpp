/// Futures of calls.
#include "tarn/ext/future.h"

#include "client/client_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using ext::async_call;
using ext::future;
using ext::reply;
using namespace std::chrono_literals;

class Future : public client_on_bus_test {
protected:
    void SetUp() override {
        start_service();
        connect();
    }

    /// Runs `work` on another thread, and the loop on this one meanwhile.
    template <class Work>
    static void beside_the_loop(const Work& work) {
        std::atomic<bool> done{false};
        std::thread other([&] {
            work();
            done = true;
            loop()->post([] {}); // wakes the loop
        });
        EXPECT_TRUE(loop()->run_until([&] { return done.load(); }, limit));
        other.join();
    }

    /// Lets tarn::ext learn which thread the loop runs on.
    static void learn() {
        const auto known = ext::detail::loop_thread::of(bus());
        loop()->drain();
        ASSERT_TRUE(known->is_this_one());
    }
};

TEST_F(Future, WaitsForTheReply) {
    beside_the_loop([] {
        auto echo = async_call(bus(), "demo", "echo", {{"n", 42}}, 5s);
        EXPECT_TRUE(echo.valid());
        EXPECT_EQ(echo.get().at<int>("n"), 42);
        EXPECT_FALSE(echo.valid());
        EXPECT_THROW(echo.get(), std::future_error);
        EXPECT_THROW(static_cast<void>(echo.is_ready()), std::future_error);
    });
}

TEST_F(Future, ThrowsTheFailureOrReturnsIt) {
    beside_the_loop([] {
        auto denied = async_call<void>(bus(), "demo", "deny", 5s);
        try {
            denied.get();
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::system_error& failed) {
            EXPECT_EQ(failed.code(), msg::permission_denied);
        }
        EXPECT_EQ(async_call(bus(), "demo", "deny", 5s).get_result().error(),
                  msg::permission_denied);
    });
}

TEST_F(Future, WaitingOnTheLoopsOwnThreadIsRefused) {
    learn();
    auto echo = async_call(bus(), "demo", "echo", {{"n", 42}}, 5s);
    EXPECT_THROW(echo.get(), std::logic_error);
    EXPECT_THROW(echo.wait(), std::logic_error);
    EXPECT_THROW(echo.wait_for(1h), std::logic_error);
    EXPECT_TRUE(echo.valid()) << "the call goes on";
    EXPECT_EQ(echo.wait_for(0s), std::future_status::timeout) << "looking is allowed";
    run_until([&] { return echo.is_ready(); });
    EXPECT_EQ(echo.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(echo.wait_for(1h), std::future_status::ready);
    EXPECT_EQ(echo.get().at<int>("n"), 42) << "it is there already";
}

TEST_F(Future, AHandlerTellsThatTheLoopHasMovedToItsThread) {
    learn();
    std::thread([] { ext::detail::loop_thread::of(bus())->note(); }).join();
    bool refused = false;
    bool called = false;
    ext::call(bus(), "demo", "echo", 5s, [&](const ext::result<reply>&) {
        called = true;
        auto inner = async_call(bus(), "demo", "echo", 5s);
        try {
            inner.wait();
        } catch (const std::logic_error&) {
            refused = true;
        }
    });
    run_until([&] { return called; });
    EXPECT_TRUE(refused);
}

TEST_F(Future, AnotherThreadThatCancelsIsNotTakenForTheLoops) {
    learn();
    beside_the_loop([] {
        const auto pending = async_call(bus(), "demo", "late", {{"ms", 60000}}, 0s);
        bus().cancel(); // calls handlers on this thread
        EXPECT_TRUE(pending.is_ready());
        EXPECT_FALSE(ext::detail::loop_thread::of(bus())->is_this_one());
    });
}

TEST_F(Future, ACallThatIsCancelledIsAborted) {
    auto pending = async_call(bus(), "demo", "late", {{"ms", 60000}}, 0s);
    bus().cancel();
    EXPECT_EQ(pending.get_result().error(), error::generic::aborted);
}

TEST_F(Future, OneThatIsDestroyedEndsItsCall) {
    {
        auto pending = async_call(bus(), "demo", "late", {{"ms", 60000}}, 9s);
        EXPECT_EQ(loop()->armed_timers().size(), 1U);
    }
    EXPECT_TRUE(loop()->armed_timers().empty());
}

TEST_F(Future, AHandlerThatIsDroppedWithoutACallIsAborted) {
    const auto state = std::make_shared<ext::detail::future_state<int>>(nullptr);
    future<int> pending(state, {});
    {
        const ext::detail::future_setter<int> dropped(state);
        EXPECT_FALSE(pending.is_ready());
    }
    EXPECT_EQ(pending.get_result().error(), error::generic::aborted);
}

TEST_F(Future, IsMovedWithItsCall) {
    beside_the_loop([] {
        auto first = async_call(bus(), "demo", "echo", {{"n", 1}}, 5s);
        future<reply> second = std::move(first);
        EXPECT_FALSE(first.valid()); // NOLINT(bugprone-use-after-move): what is tested
        second = async_call(bus(), "demo", "echo", {{"n", 2}}, 5s);
        EXPECT_EQ(second.get().at<int>("n"), 2);
    });
}

TEST_F(Future, WaitsForALimitedTime) {
    beside_the_loop([] {
        auto pending = async_call(bus(), "demo", "late", {{"ms", 60000}}, 0s);
        EXPECT_EQ(pending.wait_for(1ms), std::future_status::timeout);
        EXPECT_EQ(pending.wait_until(std::chrono::system_clock::now()),
                  std::future_status::timeout);
        auto echo = async_call(bus(), "demo", "echo", 5s);
        EXPECT_EQ(echo.wait_for(std::chrono::hours::max()), std::future_status::ready);
    });
}

TEST_F(Future, ConvertsToOneOfTheStandardLibraryThatRefusesToo) {
    learn();
    std::future<reply> refused = async_call(bus(), "demo", "echo", 5s);
    EXPECT_THROW(refused.get(), std::logic_error);
    beside_the_loop([] {
        std::future<reply> echo = async_call(bus(), "demo", "echo", {{"n", 7}}, 5s);
        EXPECT_EQ(echo.get().at<int>("n"), 7);
    });
    {
        const std::future<reply> dropped = async_call(bus(), "demo", "late", {{"ms", 60000}}, 9s);
        EXPECT_EQ(loop()->armed_timers().size(), 1U);
    }
    EXPECT_TRUE(loop()->armed_timers().empty());
}

} // namespace
} // namespace tarn::test
