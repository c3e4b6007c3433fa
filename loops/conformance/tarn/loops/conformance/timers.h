/// Conformance cases: the timers of an event loop, used on the loop's thread.
#pragma once

#include "tarn/loops/conformance/fixture.h"

#include <mutex>
#include <vector>

namespace tarn::loops::conformance {

/// When timers fire and when they do not.
template <class Driver>
class EventLoopTimers : public fixture<Driver> {};

TYPED_TEST_SUITE_P(EventLoopTimers);

TYPED_TEST_P(EventLoopTimers, AreIdleWhenMade) {
    bool fired = false;
    const auto made = this->loop().create_timer();
    ASSERT_NE(made, nullptr);
    made->set_handler([&fired] { fired = true; });
    this->pass(std::chrono::seconds(1));
    EXPECT_FALSE(fired);
}

TYPED_TEST_P(EventLoopTimers, FireOnceAndNotBeforeTheirTime) {
    // Loops with a coarse clock may be this much early.
    constexpr std::chrono::milliseconds tolerance(20);
    int fired = 0;
    const auto start = this->driver().now();
    auto end = start;
    const auto made = this->armed(std::chrono::seconds(1), [&] {
        ++fired;
        end = this->driver().now();
    });
    this->until([&fired] { return fired > 0; });
    EXPECT_GE(end - start, std::chrono::seconds(1) - tolerance);
    this->pass(std::chrono::seconds(1));
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopTimers, FireInTheOrderOfTheirDelays) {
    std::vector<int> order;
    const auto second = this->armed(std::chrono::seconds(2), [&order] { order.push_back(2); });
    const auto first = this->armed(std::chrono::seconds(1), [&order] { order.push_back(1); });
    const auto at_once = this->armed(std::chrono::seconds(0), [&order] { order.push_back(0); });
    this->until([&order] { return order.size() == 3; });
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TYPED_TEST_P(EventLoopTimers, WithoutDelayFireAtTheNextTurnNeverInsideTheCall) {
    for (const auto delay :
         {std::chrono::seconds(0), std::chrono::seconds(-1), std::chrono::seconds::min()}) {
        int fired = 0;
        const auto made = this->armed(delay, [&fired] { ++fired; });
        EXPECT_EQ(fired, 0);
        this->until([&fired] { return fired > 0; });
        this->settle();
        EXPECT_EQ(fired, 1) << "delay " << delay.count();
    }
}

TYPED_TEST_P(EventLoopTimers, WithoutDelayNeverFireInsideACallMadeByATask) {
    bool inside = false;
    bool nested = false;
    bool fired = false;
    const auto made = this->loop().create_timer();
    made->set_handler([&] {
        nested = inside;
        fired = true;
    });
    this->loop().post([&] {
        inside = true;
        made->set_timeout(std::chrono::seconds(0));
        inside = false;
    });
    this->until([&fired] { return fired; });
    EXPECT_FALSE(nested);
}

TYPED_TEST_P(EventLoopTimers, WithTheLargestDelayPracticallyNeverFire) {
    int fired = 0;
    const auto count = [&fired] {
        ++fired;
    };
    const auto largest = this->armed(std::chrono::seconds::max(), count);
    const auto almost = this->armed(std::chrono::seconds::max() - std::chrono::seconds(1), count);
    const auto milliseconds =
        this->armed(std::chrono::seconds::max() / 1000 + std::chrono::seconds(1), count);
    const auto nanoseconds =
        this->armed(std::chrono::seconds::max() / 1000000000 + std::chrono::seconds(1), count);
    // As milliseconds this one wraps around a 32-bit int to half a second or so.
    const auto narrow = this->armed(std::chrono::seconds(4294967), count);
    this->pass(std::chrono::seconds(1));
    EXPECT_EQ(fired, 0);
    bool usable = false;
    largest->set_handler([&usable] { usable = true; });
    largest->set_timeout(std::chrono::seconds(0));
    this->until([&usable] { return usable; });
}

TYPED_TEST_P(EventLoopTimers, TakeTheTimeoutBeforeTheHandler) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_timeout(std::chrono::seconds(0));
    made->set_handler([&fired] { ++fired; });
    EXPECT_EQ(fired, 0);
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopTimers, ThatExpiredWithoutAHandlerRunItOnceItIsGiven) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_timeout(std::chrono::seconds(0));
    this->settle();
    made->set_handler([&fired] { ++fired; });
    EXPECT_EQ(fired, 0);
    this->until([&fired] { return fired > 0; });
    made->set_handler([&fired] { ++fired; });
    this->settle();
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopTimers, ThatExpiredWithoutAHandlerForgetItWhenStopped) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_timeout(std::chrono::seconds(0));
    this->settle();
    made->stop();
    made->set_handler([&fired] { ++fired; });
    this->settle();
    EXPECT_EQ(fired, 0);
}

TYPED_TEST_P(EventLoopTimers, ThatExpiredWithoutAHandlerForgetItWhenArmedAnew) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_timeout(std::chrono::seconds(0));
    this->settle();
    made->set_timeout(std::chrono::seconds::max());
    made->set_handler([&fired] { ++fired; });
    this->settle();
    EXPECT_EQ(fired, 0);
}

TYPED_TEST_P(EventLoopTimers, RunTheHandlerThatWasSetLast) {
    std::vector<int> order;
    const auto made = this->armed(std::chrono::seconds(0), [&order] { order.push_back(1); });
    made->set_handler([&order] { order.push_back(2); });
    this->settle();
    EXPECT_EQ(order, std::vector<int>{2});
}

TYPED_TEST_P(EventLoopTimers, KeepTheirHandlerForTheNextTime) {
    int fired = 0;
    const auto made = this->armed(std::chrono::seconds(0), [&fired] { ++fired; });
    this->until([&fired] { return fired == 1; });
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired == 2; });
}

TYPED_TEST_P(EventLoopTimers, ArmedAnewForgetTheirOldTime) {
    int early = 0;
    int late = 0;
    const auto put_off = this->armed(std::chrono::seconds(0), [&late] { ++late; });
    put_off->set_timeout(std::chrono::seconds::max());
    const auto hastened = this->armed(std::chrono::seconds::max(), [&early] { ++early; });
    hastened->set_timeout(std::chrono::seconds(0));
    this->until([&early] { return early > 0; });
    this->settle();
    EXPECT_EQ(early, 1);
    EXPECT_EQ(late, 0);
}

TYPED_TEST_P(EventLoopTimers, MayBeArmedAnewInTheirOwnHandler) {
    int fired = 0;
    bool inside = false;
    bool nested = false;
    const auto made = this->loop().create_timer();
    made->set_handler([&] {
        nested = nested || inside;
        inside = true;
        if (++fired < 5) {
            made->set_timeout(std::chrono::seconds(fired == 2 ? 1 : 0));
        }
        inside = false;
    });
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired == 5; });
    this->settle();
    EXPECT_EQ(fired, 5);
    EXPECT_FALSE(nested);
}

TYPED_TEST_P(EventLoopTimers, MayGetANewHandlerInTheirOwnHandler) {
    std::vector<int> order;
    const auto made = this->loop().create_timer();
    const auto held = std::make_shared<int>(1);
    made->set_handler([&order, &made, held] {
        made->set_handler([&order] { order.push_back(2); });
        made->set_timeout(std::chrono::seconds(0));
        // What this handler holds must still be there, although it has been replaced.
        order.push_back(*held);
    });
    made->set_timeout(std::chrono::seconds(0));
    this->until([&order] { return order.size() == 2; });
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_EQ(held.use_count(), 1);
}

TYPED_TEST_P(EventLoopTimers, MayBeStoppedInTheirOwnHandler) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_handler([&fired, &made] {
        ++fired;
        made->set_timeout(std::chrono::seconds(0));
        made->stop();
        made->stop();
    });
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopTimers, MayBeDestroyedInTheirOwnHandler) {
    int fired = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    auto made = this->loop().create_timer();
    made->set_handler([&fired, &made, held] {
        made.reset();
        // What the handler holds must outlive its timer for as long as it runs.
        fired = ++*held;
    });
    held.reset();
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(watch.expired());
}

TYPED_TEST_P(EventLoopTimers, MayBeOwnedByTheirHandlerUntilItRuns) {
    int fired = 0;
    auto made = this->loop().create_timer();
    const std::weak_ptr<utils::event_loop::timer> watch = made;
    made->set_handler([&fired, self = made]() mutable {
        self->set_timeout(std::chrono::seconds(0));
        self.reset();
        ++fired;
    });
    made->set_timeout(std::chrono::seconds(0));
    made.reset();
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(watch.expired());
}

TYPED_TEST_P(EventLoopTimers, ThatWereStoppedNeverFire) {
    int fired = 0;
    const auto due = this->armed(std::chrono::seconds(0), [&fired] { ++fired; });
    due->stop();
    const auto later = this->armed(std::chrono::seconds(1), [&fired] { ++fired; });
    later->stop();
    this->pass(std::chrono::seconds(1));
    EXPECT_EQ(fired, 0);
}

TYPED_TEST_P(EventLoopTimers, MayBeStoppedWhenIdle) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->stop();
    made->set_handler([&fired] { ++fired; });
    made->stop();
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired == 1; });
    made->stop();
}

TYPED_TEST_P(EventLoopTimers, StoppedByAnotherThatIsDueBeforeThemDoNotFire) {
    int fired = 0;
    const auto first = this->loop().create_timer();
    const auto second = this->loop().create_timer();
    first->set_handler([&] {
        ++fired;
        second->stop();
    });
    second->set_handler([&] {
        ++fired;
        first->stop();
    });
    first->set_timeout(std::chrono::seconds(0));
    second->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopTimers, DestroyedByAnotherThatIsDueBeforeThemDoNotFire) {
    int fired = 0;
    auto first = this->loop().create_timer();
    auto second = this->loop().create_timer();
    first->set_handler([&] {
        ++fired;
        second.reset();
    });
    second->set_handler([&] {
        ++fired;
        first.reset();
    });
    first->set_timeout(std::chrono::seconds(0));
    second->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
}

TYPED_TEST_P(EventLoopTimers, StoppedByATaskWhenAlreadyDueDoNotFire) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_handler([&fired] { ++fired; });
    this->loop().post([&made] {
        made->set_timeout(std::chrono::seconds(0));
        made->stop();
    });
    this->settle();
    EXPECT_EQ(fired, 0);
}

TYPED_TEST_P(EventLoopTimers, WhoseLastOwnerHasLeftNeverFire) {
    int fired = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    auto due = this->armed(std::chrono::seconds(0), [&fired, held] { ++fired; });
    auto later = this->armed(std::chrono::seconds(1), [&fired, held] { ++fired; });
    held.reset();
    due.reset();
    later.reset();
    this->pass(std::chrono::seconds(1));
    EXPECT_EQ(fired, 0);
    EXPECT_TRUE(watch.expired());
}

TYPED_TEST_P(EventLoopTimers, FireWithoutALockOfTheLoop) {
    bool fired = false;
    const auto made = this->armed(std::chrono::seconds(0), [&] {
        this->expect_unlocked();
        fired = true;
    });
    this->until([&fired] { return fired; });
}

TYPED_TEST_P(EventLoopTimers, DestroyTheirHandlersWithoutALockOfTheLoop) {
    bool ran = false;
    const auto handler = [&, this](std::shared_ptr<utils::event_loop::timer>& own) {
        auto probe = std::make_shared<at_end>([&, this] {
            if (this->expect_unlocked()) {
                if (own) {
                    own->stop();
                }
                this->loop().post([&ran] { ran = true; });
            }
        });
        return [probe] {
        };
    };
    auto replaced = this->loop().create_timer();
    replaced->set_handler(handler(replaced));
    replaced->set_handler([] {});
    this->until([&ran] { return ran; });

    ran = false;
    auto released = this->loop().create_timer();
    released->set_handler(handler(released));
    released.reset();
    this->until([&ran] { return ran; });
}

TYPED_TEST_P(EventLoopTimers, ThatRearmThemselvesForEverDoNotStarveTasks) {
    const auto again = this->loop().create_timer();
    again->set_handler([&again] { again->set_timeout(std::chrono::seconds(0)); });
    again->set_timeout(std::chrono::seconds(0));
    int steps = 0;
    this->loop().post([this, &steps] {
        ++steps;
        this->loop().post([&steps] { ++steps; });
    });
    const auto other = this->armed(std::chrono::seconds(0), [&steps] { ++steps; });
    this->until([&steps] { return steps == 3; });
    again->stop();
}

TYPED_TEST_P(EventLoopTimers, MayBeManyAndEachFiresOnce) {
    constexpr std::size_t count = 10000;
    std::vector<int> fired(count);
    std::vector<std::shared_ptr<utils::event_loop::timer>> timers;
    std::size_t sum = 0;
    for (std::size_t number = 0; number < count; ++number) {
        timers.push_back(this->armed(std::chrono::seconds(number % 2), [&fired, &sum, number] {
            ++fired[number];
            ++sum;
        }));
    }
    for (std::size_t number = 0; number < count; number += 4) {
        timers[number]->stop();
    }
    this->until([&sum] { return sum >= count * 3 / 4; });
    this->settle();
    EXPECT_EQ(sum, count * 3 / 4);
    for (std::size_t number = 0; number < count; ++number) {
        EXPECT_EQ(fired[number], number % 4 == 0 ? 0 : 1) << "timer " << number;
    }
}

TYPED_TEST_P(EventLoopTimers, MayOutliveTheLoopAndThenDoNothing) {
    int fired = 0;
    const auto idle = this->loop().create_timer();
    const auto due = this->armed(std::chrono::seconds(0), [&fired] { ++fired; });
    this->driver().drop_loop();
    for (const auto& orphan : {idle, due}) {
        orphan->set_handler([&fired] { ++fired; });
        orphan->set_timeout(std::chrono::seconds(0));
        orphan->stop();
        orphan->set_timeout(std::chrono::seconds::max());
    }
    EXPECT_EQ(fired, 0);
}

REGISTER_TYPED_TEST_SUITE_P(
    EventLoopTimers, AreIdleWhenMade, FireOnceAndNotBeforeTheirTime, FireInTheOrderOfTheirDelays,
    WithoutDelayFireAtTheNextTurnNeverInsideTheCall, WithoutDelayNeverFireInsideACallMadeByATask,
    WithTheLargestDelayPracticallyNeverFire, TakeTheTimeoutBeforeTheHandler,
    ThatExpiredWithoutAHandlerRunItOnceItIsGiven, ThatExpiredWithoutAHandlerForgetItWhenStopped,
    ThatExpiredWithoutAHandlerForgetItWhenArmedAnew, RunTheHandlerThatWasSetLast,
    KeepTheirHandlerForTheNextTime, ArmedAnewForgetTheirOldTime, MayBeArmedAnewInTheirOwnHandler,
    MayGetANewHandlerInTheirOwnHandler, MayBeStoppedInTheirOwnHandler,
    MayBeDestroyedInTheirOwnHandler, MayBeOwnedByTheirHandlerUntilItRuns, ThatWereStoppedNeverFire,
    MayBeStoppedWhenIdle, StoppedByAnotherThatIsDueBeforeThemDoNotFire,
    DestroyedByAnotherThatIsDueBeforeThemDoNotFire, StoppedByATaskWhenAlreadyDueDoNotFire,
    WhoseLastOwnerHasLeftNeverFire, FireWithoutALockOfTheLoop,
    DestroyTheirHandlersWithoutALockOfTheLoop, ThatRearmThemselvesForEverDoNotStarveTasks,
    MayBeManyAndEachFiresOnce, MayOutliveTheLoopAndThenDoNothing);

} // namespace tarn::loops::conformance
