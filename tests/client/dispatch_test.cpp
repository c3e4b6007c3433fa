/// The traffic of tasks between the loop thread and the application's loop, seen from inside: this
/// program is compiled without access control.
#include "client/client_impl.h"

#include "support/hand_loop.h"
#include "support/on_loop_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarn::test {
namespace {

using ::testing::ElementsAre;

class Dispatch : public ::testing::Test {
protected:
    static const std::shared_ptr<hand_loop>& loop() {
        static const auto instance = std::make_shared<hand_loop>();
        return instance;
    }
    static client_impl& bus() { return client_impl::get_instance(loop()); }

    std::vector<int> ran_;
    std::function<void()> record(int n) {
        return [this, n] {
            ran_.push_back(n);
        };
    }
};

TEST_F(Dispatch, AFreshClientDeliversNothingBeforeTheApplicationsFirstRequest) {
    bus();
    on_loop_thread([&] { bus().post_from_uloop(record(1)); });
    EXPECT_EQ(loop()->post_count(), 0U);
    bus().post_to_uloop([] {});
    EXPECT_EQ(loop()->post_count(), 1U);
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Dispatch, TwoResultsInARowCostOneDrainAndRunInOrderInIt) {
    bus().post_to_uloop([] {});
    loop()->drain();
    const auto before = loop()->post_count();
    on_loop_thread([&] {
        bus().post_from_uloop(record(1));
        bus().post_from_uloop(record(2));
    });
    EXPECT_EQ(loop()->post_count(), before + 1);
    EXPECT_TRUE(loop()->run_one());
    EXPECT_THAT(ran_, ElementsAre(1, 2));
    EXPECT_FALSE(loop()->run_one());
}

TEST_F(Dispatch, ATaskHandedOverBeforeCancelDoesNothingAfterIt) {
    bus().post(record(1));
    bus().cancel();
    loop()->drain();
    EXPECT_TRUE(ran_.empty());
    bus().post(record(2));
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(2));
}

TEST_F(Dispatch, CancelRunsWhatIsQueuedAtOnce) {
    bus();
    on_loop_thread([&] { bus().post_from_uloop(record(1)); });
    bus().cancel();
    EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Dispatch, AScheduledTaskOnAnEmptyQueueAlwaysRequestsADrain) {
    bus().schedule_task(record(1));
    EXPECT_EQ(loop()->post_count(), 1U) << "although delivery still waits";
    loop()->drain();
    bus().post_to_uloop([] {});
    loop()->drain();
    const auto before = loop()->post_count();
    bus().schedule_task(record(2));
    EXPECT_EQ(loop()->post_count(), before + 1);
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(Dispatch, AScheduledTaskBehindResultsThatWaitForDeliveryIsNotStuckWithThem) {
    bus();
    on_loop_thread([&] { bus().post_from_uloop(record(1)); });
    bus().schedule_task(record(2));
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(Dispatch, ATaskQueuedWhileADrainRunsWaitsForTheNext) {
    bus().schedule_task([this] {
        ran_.push_back(1);
        bus().schedule_task(record(3));
    });
    bus().schedule_task(record(2));
    EXPECT_TRUE(loop()->run_one());
    EXPECT_THAT(ran_, ElementsAre(1, 2));
    EXPECT_TRUE(loop()->run_one());
    EXPECT_THAT(ran_, ElementsAre(1, 2, 3));
}

TEST_F(Dispatch, AnExceptionLeavesTheDrainAndDropsTheRestOfItsBatch) {
    bus().schedule_task([] { throw std::runtime_error("a handler's"); });
    bus().schedule_task(record(1));
    EXPECT_THROW(loop()->drain(), std::runtime_error);
    loop()->drain();
    EXPECT_TRUE(ran_.empty());
    bus().schedule_task(record(2));
    loop()->drain();
    EXPECT_THAT(ran_, ElementsAre(2));
}

TEST_F(Dispatch, EachTaskIsDestroyedBeforeTheNextOneRuns) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    bool gone = false;
    bus().schedule_task([held = std::move(held)] {});
    bus().schedule_task([&] { gone = watched.expired(); });
    loop()->drain();
    EXPECT_TRUE(gone);
}

TEST_F(Dispatch, TheTrackerIsEmptyWhileCancelRunsAndFreshAfterwards) {
    const auto before = bus().get_tracker();
    EXPECT_FALSE(before.expired());
    bool empty_during = false;
    bus().schedule_task([&] { empty_during = bus().get_tracker().expired(); });
    bus().cancel();
    EXPECT_TRUE(empty_during);
    EXPECT_TRUE(before.expired());
    EXPECT_FALSE(bus().get_tracker().expired());
}

} // namespace
} // namespace tarn::test
