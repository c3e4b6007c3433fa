/// Conformance cases: what an event loop owes to the tasks posted to it.
#pragma once

#include "tarn/loops/conformance/fixture.h"

#include <array>
#include <mutex>
#include <numeric>
#include <vector>

namespace tarn::loops::conformance {

/// Order, thread and lifetime of posted tasks.
template <class Driver>
class EventLoopTasks : public fixture<Driver> {};

TYPED_TEST_SUITE_P(EventLoopTasks);

TYPED_TEST_P(EventLoopTasks, RunInTheOrderInWhichTheyWerePosted) {
    std::vector<int> order;
    for (int number = 0; number < 1000; ++number) {
        this->loop().post([&order, number] { order.push_back(number); });
    }
    this->until([&] { return order.size() >= 1000; });
    this->settle();
    std::vector<int> expected(1000);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);
}

TYPED_TEST_P(EventLoopTasks, NeverRunInsidePost) {
    bool ran = false;
    this->loop().post([&ran] { ran = true; });
    EXPECT_FALSE(ran);
    this->until([&ran] { return ran; });
}

TYPED_TEST_P(EventLoopTasks, NeverRunInsideAPostMadeByATask) {
    bool inside = false;
    bool nested = false;
    bool ran = false;
    this->loop().post([&] {
        inside = true;
        this->loop().post([&] {
            nested = inside;
            ran = true;
        });
        inside = false;
    });
    this->until([&ran] { return ran; });
    EXPECT_FALSE(nested);
}

TYPED_TEST_P(EventLoopTasks, PostedByATaskRunAfterThoseAlreadyWaiting) {
    std::vector<int> order;
    this->loop().post([&] {
        order.push_back(1);
        this->loop().post([&order] { order.push_back(3); });
    });
    this->loop().post([&order] { order.push_back(2); });
    this->until([&order] { return order.size() == 3; });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TYPED_TEST_P(EventLoopTasks, AreCopiedSoThatTheCallersMayGo) {
    int runs = 0;
    std::function<void()> task = [&runs] {
        ++runs;
    };
    this->loop().post(task);
    task = nullptr;
    this->until([&runs] { return runs == 1; });
}

TYPED_TEST_P(EventLoopTasks, OfManyThreadsRunOnceEachAndInTheOrderOfEachThread) {
    constexpr std::size_t threads = 8;
    constexpr int tasks = 1000;
    std::array<std::vector<int>, threads> order;
    std::size_t runs = 0;
    {
        crew posters;
        for (std::size_t number = 0; number < threads; ++number) {
            posters.add([this, &order, &runs, number] {
                for (int task = 0; task < tasks; ++task) {
                    this->loop().post([&order, &runs, number, task] {
                        order[number].push_back(task);
                        ++runs;
                    });
                }
            });
        }
        posters.start();
        this->until([&runs] { return runs >= threads * tasks; });
    }
    this->settle();
    std::vector<int> expected(tasks);
    std::iota(expected.begin(), expected.end(), 0);
    for (const std::vector<int>& one : order) {
        EXPECT_EQ(one, expected);
    }
}

TYPED_TEST_P(EventLoopTasks, AndHandlersRunOnOneThreadOneAtATime) {
    const auto busy = std::make_shared<std::atomic<bool>>(false);
    const auto overlaps = std::make_shared<std::atomic<int>>(0);
    std::atomic<int> runs{0};
    std::thread::id first;
    const auto step = [busy, overlaps, &runs, &first] {
        *overlaps += busy->exchange(true) ? 1 : 0;
        if (first == std::thread::id()) {
            first = std::this_thread::get_id();
        }
        *overlaps += first == std::this_thread::get_id() ? 0 : 1;
        ++runs;
        *busy = false;
    };
    std::vector<std::shared_ptr<utils::event_loop::timer>> timers(400);
    {
        crew posters;
        for (std::size_t number = 0; number < 4; ++number) {
            posters.add([this, step, &timers, number] {
                for (std::size_t task = 0; task < 100; ++task) {
                    this->loop().post(step);
                    timers[number * 100 + task] = this->armed(std::chrono::seconds(0), step);
                }
            });
        }
        posters.start();
        this->until([&runs] { return runs >= 800; });
    }
    EXPECT_EQ(*overlaps, 0);
}

TYPED_TEST_P(EventLoopTasks, MayTakeALockThatThePosterHolds) {
    constexpr int posts = 200;
    const auto library = std::make_shared<std::mutex>();
    int runs = 0;
    const auto task = [library, &runs] {
        EXPECT_TRUE(passes(*library)) << "post() does not return while the loop runs a task";
        ++runs;
    };
    {
        crew posters;
        for (int number = 0; number < 2; ++number) {
            posters.add([this, library, task] {
                for (int post = 0; post < posts; ++post) {
                    const std::lock_guard<std::mutex> lock(*library);
                    this->loop().post(task);
                }
            });
        }
        posters.start();
        this->until([&runs] { return runs == 2 * posts; });
    }
}

TYPED_TEST_P(EventLoopTasks, MayPostWithALockHeldThatTheNextOneTakes) {
    std::mutex library;
    bool ran = false;
    this->loop().post([&] {
        const std::unique_lock<std::mutex> lock(library);
        this->loop().post([&] {
            const std::unique_lock<std::mutex> again(library, std::try_to_lock);
            EXPECT_TRUE(again.owns_lock());
            ran = true;
        });
    });
    this->until([&ran] { return ran; });
}

TYPED_TEST_P(EventLoopTasks, RunWithoutALockOfTheLoop) {
    bool ran = false;
    this->loop().post([&] {
        this->expect_unlocked();
        ran = true;
    });
    this->until([&ran] { return ran; });
}

TYPED_TEST_P(EventLoopTasks, ReleaseWhatTheyHeldOnceTheyHaveRun) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    this->loop().post([held] { ++*held; });
    held.reset();
    EXPECT_FALSE(watch.expired());
    this->settle();
    EXPECT_TRUE(watch.expired());
}

TYPED_TEST_P(EventLoopTasks, AreDestroyedWithoutALockOfTheLoopHeld) {
    bool ran = false;
    auto probe = std::make_shared<at_end>([&] {
        if (this->expect_unlocked()) {
            const auto made = this->loop().create_timer();
            made->set_timeout(std::chrono::seconds(5));
            made->stop();
            this->loop().post([&ran] { ran = true; });
        }
    });
    this->loop().post([probe] {});
    probe.reset();
    this->until([&ran] { return ran; });
}

TYPED_TEST_P(EventLoopTasks, ThatNeverRanAreDestroyedWithTheLoop) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    bool ran = false;
    this->loop().post([held, &ran] { ran = true; });
    held.reset();
    this->driver().drop_loop();
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(ran);
}

TYPED_TEST_P(EventLoopTasks, ThatNeverRanMayUseTimersOfTheDyingLoopWhenDestroyed) {
    bool destroyed = false;
    auto own = this->loop().create_timer();
    auto probe = std::make_shared<at_end>([own = std::move(own), &destroyed]() mutable {
        own->set_handler([] {});
        own->set_timeout(std::chrono::seconds(1));
        own->stop();
        own.reset();
        destroyed = true;
    });
    this->loop().post([probe] {});
    probe.reset();
    this->driver().drop_loop();
    EXPECT_TRUE(destroyed);
}

TYPED_TEST_P(EventLoopTasks, ThatPostThemselvesForEverDoNotStarveTimers) {
    const auto again = std::make_shared<std::function<void()>>();
    *again = [this, weak = std::weak_ptr<std::function<void()>>(again)] {
        if (const auto self = weak.lock()) {
            this->loop().post(*self);
        }
    };
    this->loop().post(*again);
    bool fired = false;
    const auto victim = this->armed(std::chrono::seconds(0), [&fired] { fired = true; });
    this->until([&fired] { return fired; });
}

REGISTER_TYPED_TEST_SUITE_P(
    EventLoopTasks, RunInTheOrderInWhichTheyWerePosted, NeverRunInsidePost,
    NeverRunInsideAPostMadeByATask, PostedByATaskRunAfterThoseAlreadyWaiting,
    AreCopiedSoThatTheCallersMayGo, OfManyThreadsRunOnceEachAndInTheOrderOfEachThread,
    AndHandlersRunOnOneThreadOneAtATime, MayTakeALockThatThePosterHolds,
    MayPostWithALockHeldThatTheNextOneTakes, RunWithoutALockOfTheLoop,
    ReleaseWhatTheyHeldOnceTheyHaveRun, AreDestroyedWithoutALockOfTheLoopHeld,
    ThatNeverRanAreDestroyedWithTheLoop, ThatNeverRanMayUseTimersOfTheDyingLoopWhenDestroyed,
    ThatPostThemselvesForEverDoNotStarveTimers);

} // namespace tarn::loops::conformance
