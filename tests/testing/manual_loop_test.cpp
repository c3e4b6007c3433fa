/// Tests what manual_loop offers to tests beyond the interface of an event loop.
#include "tarn/testing/manual_loop.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using tarn::testing::manual_loop;
using namespace std::chrono_literals;
using timer_ptr = std::shared_ptr<tarn::utils::event_loop::timer>;

TEST(ManualLoop, TasksWaitUntilTheyAreDrained) {
    manual_loop loop;
    int runs = 0;
    loop.post([&runs] { ++runs; });
    loop.post([&runs] { ++runs; });
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(loop.waiting_tasks(), 2U);
    EXPECT_EQ(loop.drain(), 2U);
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(loop.drain(), 0U);
}

TEST(ManualLoop, RunOneRunsExactlyOneTask) {
    manual_loop loop;
    std::vector<int> order;
    loop.post([&order] { order.push_back(1); });
    loop.post([&order] { order.push_back(2); });
    EXPECT_TRUE(loop.run_one());
    EXPECT_EQ(order, std::vector<int>{1});
    EXPECT_TRUE(loop.run_one());
    EXPECT_FALSE(loop.run_one());
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(ManualLoop, DrainRunsWhatTasksPost) {
    manual_loop loop;
    bool ran = false;
    loop.post([&] { loop.post([&ran] { ran = true; }); });
    EXPECT_EQ(loop.drain(), 2U);
    EXPECT_TRUE(ran);
}

TEST(ManualLoop, WaitForTaskReturnsForATaskOfAnotherThreadAndRunsNothing) {
    manual_loop loop;
    bool ran = false;
    std::thread poster([&] { loop.post([&ran] { ran = true; }); });
    EXPECT_TRUE(loop.wait_for_task(20s));
    EXPECT_FALSE(ran);
    poster.join();
}

TEST(ManualLoop, WaitForTaskGivesUpAtItsLimit) {
    manual_loop loop;
    EXPECT_FALSE(loop.wait_for_task(1ms));
}

TEST(ManualLoop, RunUntilDrainsTasksOfAnotherThreadAsTheyCome) {
    manual_loop loop;
    int runs = 0;
    std::thread poster([&] {
        for (int count = 0; count < 100; ++count) {
            loop.post([&runs] { ++runs; });
        }
    });
    EXPECT_TRUE(loop.run_until([&runs] { return runs == 100; }, 20s));
    poster.join();
}

TEST(ManualLoop, RunUntilStopsAtTheTaskThatMadeItTrue) {
    manual_loop loop;
    int runs = 0;
    loop.post([&runs] { ++runs; });
    loop.post([&runs] { ++runs; });
    EXPECT_TRUE(loop.run_until([&runs] { return runs == 1; }, 20s));
    EXPECT_EQ(loop.waiting_tasks(), 1U);
}

TEST(ManualLoop, RunUntilGivesUpAtItsLimit) {
    manual_loop loop;
    EXPECT_FALSE(loop.run_until([] { return false; }, 1ms));
}

TEST(ManualLoop, TimersFireOnlyWhenTimeIsAdvanced) {
    manual_loop loop;
    int fired = 0;
    const auto made = loop.create_timer();
    made->set_handler([&fired] { ++fired; });
    made->set_timeout(3s);
    EXPECT_EQ(loop.drain(), 0U);
    EXPECT_EQ(loop.advance(2s), 0U);
    EXPECT_EQ(loop.advance(1s), 1U);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(loop.now(), 3s);
}

TEST(ManualLoop, EveryTimerFiresAtItsOwnTime) {
    manual_loop loop;
    std::vector<std::chrono::seconds> times;
    const auto made = loop.create_timer();
    made->set_handler([&] {
        times.push_back(loop.now());
        made->set_timeout(2s);
    });
    made->set_timeout(1s);
    EXPECT_EQ(loop.advance(6s), 3U);
    EXPECT_EQ(times, (std::vector<std::chrono::seconds>{1s, 3s, 5s}));
    EXPECT_EQ(loop.now(), 6s);
}

TEST(ManualLoop, ATimerArmedWithoutDelayByAHandlerWaitsForTheNextAdvance) {
    manual_loop loop;
    const auto made = loop.create_timer();
    made->set_handler([&made] { made->set_timeout(0s); });
    made->set_timeout(1s);
    EXPECT_EQ(loop.advance(10s), 1U);
    EXPECT_EQ(loop.advance(0s), 1U);
    EXPECT_EQ(loop.advance(0s), 1U);
}

TEST(ManualLoop, AdvancingByTheMostFiresAllButTheTimersThatNeverExpire) {
    manual_loop loop;
    const auto made = loop.create_timer();
    made->set_handler([] {});
    const auto endless = loop.create_timer();
    endless->set_handler([] { ADD_FAILURE() << "a timer fired at the end of time"; });
    made->set_timeout(1000000s);
    endless->set_timeout(std::chrono::seconds::max());
    EXPECT_EQ(loop.advance(std::chrono::seconds::max()), 1U);
    EXPECT_EQ(loop.advance(std::chrono::seconds::max()), 0U);
}

TEST(ManualLoop, ListsTheArmedTimersByRemainingTime) {
    manual_loop loop;
    const auto first = loop.create_timer();
    const auto second = loop.create_timer();
    const auto idle = loop.create_timer();
    first->set_timeout(7s);
    second->set_timeout(3s);
    loop.advance(1s);
    EXPECT_EQ(loop.armed_timers(), (std::vector<std::chrono::seconds>{2s, 6s}));
    second->stop();
    EXPECT_EQ(loop.armed_timers(), std::vector<std::chrono::seconds>{6s});
}

TEST(ManualLoop, CountsPostsAndTimers) {
    manual_loop loop;
    loop.post([] {});
    loop.drain();
    loop.post([] {});
    EXPECT_EQ(loop.post_count(), 2U);
    auto first = loop.create_timer();
    const auto second = loop.create_timer();
    first.reset();
    EXPECT_EQ(loop.timers_made(), 2U);
    EXPECT_EQ(loop.timers_alive(), 1U);
}

} // namespace
