/// Conformance cases for loops that let the exceptions of tasks and handlers out: nothing is lost.
#pragma once

#include "tarn/loops/conformance/fixture.h"

#include <stdexcept>
#include <vector>

namespace tarn::loops::conformance {

/// What an exception of a task or a handler may do to a loop that lets it out.
template <class Driver>
class EventLoopExceptions : public fixture<Driver> {
protected:
    /// Runs the loop and checks that the exception of a task or handler comes out.
    void expect_thrown() {
        EXPECT_THROW(this->driver().run_until([] { return false; }, patience), std::runtime_error);
    }
};

TYPED_TEST_SUITE_P(EventLoopExceptions);

TYPED_TEST_P(EventLoopExceptions, OfATaskLeaveTheOthersForTheNextRun) {
    std::vector<int> order;
    this->loop().post([&order] { order.push_back(1); });
    this->loop().post([] { throw std::runtime_error("a task"); });
    this->loop().post([&order] { order.push_back(2); });
    this->loop().post([&order] { order.push_back(3); });
    this->expect_thrown();
    EXPECT_EQ(order, std::vector<int>{1});
    this->loop().post([&order] { order.push_back(4); });
    this->until([&order] { return order.size() == 4; });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TYPED_TEST_P(EventLoopExceptions, OfATaskDestroyItWithoutALockOfTheLoopHeld) {
    bool destroyed = false;
    auto probe = std::make_shared<at_end>([this, &destroyed] {
        this->expect_unlocked();
        destroyed = true;
    });
    this->loop().post([probe] { throw std::runtime_error("a task"); });
    probe.reset();
    this->expect_thrown();
    EXPECT_TRUE(destroyed);
}

TYPED_TEST_P(EventLoopExceptions, OfATaskLeaveDueTimersForTheNextRun) {
    int fired = 0;
    const auto made = this->armed(std::chrono::seconds(0), [&fired] { ++fired; });
    this->loop().post([] { throw std::runtime_error("a task"); });
    this->expect_thrown();
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopExceptions, OfAHandlerLeaveTheOtherTimersForTheNextRun) {
    int fired = 0;
    const auto other = [&fired] {
        ++fired;
    };
    const auto first = this->armed(std::chrono::seconds(0), other);
    const auto thrower = this->armed(std::chrono::seconds(0), [&fired] {
        ++fired;
        throw std::runtime_error("a handler");
    });
    const auto last = this->armed(std::chrono::seconds(0), other);
    this->expect_thrown();
    this->until([&fired] { return fired == 3; });
    this->settle();
    EXPECT_EQ(fired, 3);
}

TYPED_TEST_P(EventLoopExceptions, OfAHandlerLeaveItsTimerAsItWasArmedThere) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_handler([&made, &fired] {
        if (++fired == 1) {
            made->set_timeout(std::chrono::seconds(0));
            throw std::runtime_error("a handler");
        }
    });
    made->set_timeout(std::chrono::seconds(0));
    this->expect_thrown();
    EXPECT_EQ(fired, 1);
    this->until([&fired] { return fired == 2; });
}

TYPED_TEST_P(EventLoopExceptions, OfAHandlerThatReleasedItsTimerAreHarmless) {
    auto made = this->loop().create_timer();
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    made->set_handler([&made, held] {
        made.reset();
        throw std::runtime_error("a handler");
    });
    held.reset();
    made->set_timeout(std::chrono::seconds(0));
    this->expect_thrown();
    EXPECT_TRUE(watch.expired());
    this->settle();
}

REGISTER_TYPED_TEST_SUITE_P(EventLoopExceptions, OfATaskLeaveTheOthersForTheNextRun,
                            OfATaskDestroyItWithoutALockOfTheLoopHeld,
                            OfATaskLeaveDueTimersForTheNextRun,
                            OfAHandlerLeaveTheOtherTimersForTheNextRun,
                            OfAHandlerLeaveItsTimerAsItWasArmedThere,
                            OfAHandlerThatReleasedItsTimerAreHarmless);

// Not every loop lets exceptions out. Elder releases of GoogleTest do not ask.
#ifdef GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EventLoopExceptions);
#endif

} // namespace tarn::loops::conformance
