/// The traffic of tasks between the loop thread and the application's loop, seen from inside: this
/// program is compiled without access control.
#include "client/client_impl.h"

#include "support/hand_loop.h"
#include "support/on_loop_thread.h"
#include "tarn/bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace tarn::test {
namespace {

using ::testing::ElementsAre;

/// A task that owns a function.
class function_task final : public self_counted {
public:
    explicit function_task(std::function<void()> function)
        : work_(std::move(function)) {}

private:
    void run() { work_(); }

    const std::function<void()> work_;

public:
    droppable_task<function_task, &function_task::run> work{*this};
};

/// A loop with something to do ahead of the next post(), once.
class hooked_loop final : public hand_loop {
public:
    void post(const std::function<void()>& task) override {
        if (const auto first = std::exchange(before_post, nullptr)) {
            first();
        }
        hand_loop::post(task);
    }
    std::function<void()> before_post;
};

class Dispatch : public ::testing::Test {
protected:
    static const std::shared_ptr<hooked_loop>& loop() {
        static const auto instance = std::make_shared<hooked_loop>();
        return instance;
    }
    static client_impl& bus() { return client_impl::get_instance(loop()); }
    static task_bridge& bridge() { return bus().bridge_; }

    std::vector<int> ran_;
    std::function<void()> record(int n) {
        return [this, n] {
            ran_.push_back(n);
        };
    }

    /// The next request of a drain fails, when the loop thread has relied on it for `result`.
    void refuse_next_drain(int result) {
        loop()->before_post = [this, result] {
            on_loop_thread([&] { post_from_uloop(record(result)); });
            throw std::bad_alloc();
        };
    }

    static void post_from_uloop(const std::function<void()>& work) {
        const auto posted = make_counted<function_task>(work);
        bridge().post_from_uloop(posted->work);
    }
    static void post_to_uloop(const std::function<void()>& work) {
        const auto posted = make_counted<function_task>(work);
        bridge().post_to_uloop(posted->work);
    }
    static void schedule_task(std::function<void()> work) {
        const auto posted = make_counted<function_task>(std::move(work));
        bridge().schedule_task(posted->work);
    }
};

TEST_F(Dispatch, AFreshClientDeliversNothingBeforeTheApplicationsFirstRequest) {
    bus();
    on_loop_thread([&] { post_from_uloop(record(1)); });
    EXPECT_EQ(loop()->post_count(), 0U);
    post_to_uloop([] {});
    EXPECT_EQ(loop()->post_count(), 1U);
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Dispatch, TwoResultsInARowCostOneDrainAndRunInOrderInIt) {
    post_to_uloop([] {});
    loop()->drain();
    const auto before = loop()->post_count();
    on_loop_thread([&] {
        post_from_uloop(record(1));
        post_from_uloop(record(2));
    });
    EXPECT_EQ(loop()->post_count(), before + 1);
    EXPECT_TRUE(loop()->run_one());
    EXPECT_THAT(ran_, ElementsAre(1, 2));
    EXPECT_FALSE(loop()->run_one());
}

TEST_F(Dispatch, ATaskHandedOverBeforeCancelDoesNothingAfterIt) {
    bridge().post(record(1));
    bus().cancel();
    loop()->drain();
    EXPECT_TRUE(ran_.empty());
    bridge().post(record(2));
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(2));
}

TEST_F(Dispatch, CancelRunsWhatIsQueuedAtOnce) {
    bus();
    on_loop_thread([&] { post_from_uloop(record(1)); });
    bus().cancel();
    EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Dispatch, AScheduledTaskOnAnEmptyQueueAlwaysRequestsADrain) {
    schedule_task(record(1));
    EXPECT_EQ(loop()->post_count(), 1U) << "although delivery still waits";
    loop()->drain();
    post_to_uloop([] {});
    loop()->drain();
    const auto before = loop()->post_count();
    schedule_task(record(2));
    EXPECT_EQ(loop()->post_count(), before + 1);
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(Dispatch, AScheduledTaskBehindResultsThatWaitForDeliveryIsNotStuckWithThem) {
    bus();
    on_loop_thread([&] { post_from_uloop(record(1)); });
    schedule_task(record(2));
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(Dispatch, ATaskQueuedWhileADrainRunsWaitsForTheNext) {
    schedule_task([this] {
        ran_.push_back(1);
        schedule_task(record(3));
    });
    schedule_task(record(2));
    EXPECT_TRUE(loop()->run_one());
    EXPECT_THAT(ran_, ElementsAre(1, 2));
    EXPECT_TRUE(loop()->run_one());
    EXPECT_THAT(ran_, ElementsAre(1, 2, 3));
}

TEST_F(Dispatch, AnExceptionLeavesTheDrainAndDropsTheRestOfItsBatch) {
    schedule_task([] { throw std::runtime_error("a handler's"); });
    schedule_task(record(1));
    EXPECT_THROW(loop()->drain(), std::runtime_error);
    loop()->drain();
    EXPECT_TRUE(ran_.empty());
    schedule_task(record(2));
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(2));
}

TEST_F(Dispatch, EachTaskIsDestroyedBeforeTheNextOneRuns) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    bool gone = false;
    schedule_task([held = std::move(held)] {});
    schedule_task([&] { gone = watched.expired(); });
    loop()->drain();
    EXPECT_TRUE(gone);
}

TEST_F(Dispatch, ThereIsNoLifeWhileCancelRunsAndAnotherOneAfterwards) {
    const life_id before = bridge().life();
    EXPECT_NE(before, life_id::none);
    life_id during = before;
    schedule_task([&] { during = bridge().life(); });
    bus().cancel();
    EXPECT_EQ(during, life_id::none);
    EXPECT_NE(bridge().life(), life_id::none);
    EXPECT_NE(bridge().life(), before);
}

TEST_F(Dispatch, TheLongestQueueForTheApplicationIsCountedWhoeverFillsIt) {
    for (int n = 0; n < 1000; ++n) {
        schedule_task([] {});
    }
    stats counted = bus().get_bus().stats();
    EXPECT_EQ(counted.to_application.now, 1000U);
    EXPECT_EQ(counted.to_application.highest, 1000U);
    loop()->drain();
    counted = bus().get_bus().stats();
    EXPECT_EQ(counted.to_application.now, 0U);
    EXPECT_EQ(counted.to_application.highest, 1000U);
}

TEST_F(Dispatch, ATaskThatIsPutBackCountsInTheLongestQueue) {
    schedule_task([] {});
    const auto back = make_counted<function_task>([] {});
    bridge().put_back(back->work);
    EXPECT_EQ(bus().get_bus().stats().to_application.highest, 2U);
    loop()->drain();
}

TEST_F(Dispatch, AResultThatReliesOnADrainForATaskThatIsRefusedIsDelivered) {
    post_to_uloop([] {});
    on_loop_thread([] {});
    loop()->drain();
    refuse_next_drain(1);
    EXPECT_THROW(schedule_task(record(2)), std::bad_alloc);
    on_loop_thread([] {});
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Dispatch, AResultThatReliesOnADrainForARequestThatIsRefusedIsDelivered) {
    bus();
    on_loop_thread([&] { post_from_uloop(record(1)); });
    refuse_next_drain(2);
    EXPECT_THROW(post_to_uloop(record(3)), std::bad_alloc);
    on_loop_thread([] {});
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(Dispatch, AResultThatReliesOnADrainForATaskThatIsPutBackIsDeliveredWithIt) {
    post_to_uloop([] {});
    on_loop_thread([] {});
    loop()->drain();
    refuse_next_drain(1);
    const auto back = make_counted<function_task>(record(2));
    bridge().put_back(back->work);
    on_loop_thread([] {});
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(2, 1));
}

} // namespace
} // namespace tarn::test
