/// uloop's timers.
#include "bus.h"

#include <ctime>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "uloop_fixture.h"

namespace {

using ubox_test::event_fd;
using ubox_test::timer;
using ubox_test::uloop_test;

// Newer releases advise another name, which older ones do not have.
int remaining_of(uloop_timeout& timeout) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return uloop_timeout_remaining(&timeout);
#pragma GCC diagnostic pop
}

using UloopTimer = uloop_test;

TEST_F(UloopTimer, FiresOnceAndIsNotPendingInItsHandler) {
    int fired = 0;
    timer once([&](timer& self) {
        ++fired;
        EXPECT_FALSE(self.pending);
    });
    timer end([](timer&) { uloop_end(); });
    uloop_timeout_set(&once, 0);
    uloop_timeout_set(&end, 20);
    EXPECT_TRUE(once.pending);
    run();
    EXPECT_EQ(fired, 1);
}

TEST_F(UloopTimer, FireInTheOrderOfTheirTimes) {
    std::string order;
    timer first([&](timer&) { order += '1'; });
    timer second([&](timer&) { order += '2'; });
    timer third([&](timer&) {
        order += '3';
        uloop_end();
    });
    uloop_timeout_set(&third, 15);
    uloop_timeout_set(&first, 1);
    uloop_timeout_set(&second, 7);
    run();
    EXPECT_EQ(order, "123");
}

TEST_F(UloopTimer, EqualTimesFireInTheOrderOfAdding) {
    std::string order;
    timer first([&](timer&) { order += '1'; });
    timer second([&](timer&) { order += '2'; });
    timer third([&](timer&) {
        order += '3';
        uloop_end();
    });
    for (timer* each : {&first, &second, &third}) {
        each->time = {1, 0};
        EXPECT_EQ(uloop_timeout_add(each), 0);
    }
    run();
    EXPECT_EQ(order, "123");
}

TEST_F(UloopTimer, SetAgainIsMoved) {
    std::string order;
    timer moved([&](timer&) { order += 'm'; });
    timer other([&](timer&) { order += 'o'; });
    timer end([](timer&) { uloop_end(); });
    uloop_timeout_set(&moved, 1);
    uloop_timeout_set(&other, 5);
    uloop_timeout_set(&end, 20);
    uloop_timeout_set(&moved, 10);
    run();
    EXPECT_EQ(order, "om");
}

TEST_F(UloopTimer, AddedTwiceIsRefused) {
    timer once([](timer&) {});
    uloop_timeout_set(&once, 1000);
    EXPECT_EQ(uloop_timeout_add(&once), -1);
    uloop_timeout_cancel(&once);
}

TEST_F(UloopTimer, CancelledNeverFires) {
    timer never([](timer&) { ADD_FAILURE(); });
    timer end([](timer&) { uloop_end(); });
    uloop_timeout_set(&never, 1);
    uloop_timeout_set(&end, 10);
    EXPECT_EQ(uloop_timeout_cancel(&never), 0);
    EXPECT_EQ(uloop_timeout_cancel(&never), -1);
    run();
}

TEST_F(UloopTimer, RemainingCountsDownAndIsMinusOneWhenNotPending) {
    timer one([](timer&) {});
    EXPECT_EQ(remaining_of(one), -1);
    uloop_timeout_set(&one, 100000);
    EXPECT_GT(remaining_of(one), 50000);
    EXPECT_LE(remaining_of(one), 100000);
    uloop_timeout_cancel(&one);
    EXPECT_EQ(remaining_of(one), -1);
}

TEST_F(UloopTimer, LargestTimeIsAccepted) {
    timer far([](timer&) { ADD_FAILURE(); });
    EXPECT_EQ(uloop_timeout_set(&far, 2147483647), 0);
    EXPECT_GT(remaining_of(far), 2147000000);
    EXPECT_EQ(uloop_run_timeout(1), 0);
}

TEST_F(UloopTimer, HandlerMayCancelAnotherThatIsDueToo) {
    timer victim([](timer&) { ADD_FAILURE(); });
    timer killer([&](timer&) { uloop_timeout_cancel(&victim); });
    timer end([](timer&) { uloop_end(); });
    uloop_timeout_set(&killer, 0);
    uloop_timeout_set(&victim, 0);
    uloop_timeout_set(&end, 0);
    run();
    EXPECT_FALSE(victim.pending);
}

TEST_F(UloopTimer, HandlerMayFreeItsOwnTimer) {
    auto* const once = new timer([](timer& self) {
        delete &self;
        uloop_end();
    });
    uloop_timeout_set(once, 0);
    run();
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(UloopTimer, SettingItselfAgainAtOnceKeepsNoDescriptorWaiting) {
    timer always([](timer& self) { uloop_timeout_set(&self, 0); });
    event_fd ready([](event_fd&, unsigned) { uloop_end(); });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    uloop_timeout_set(&always, 0);
    run();
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(UloopTimer, DueOnesGoBeforeDescriptors) {
    std::string order;
    timer due([&](timer&) { order += 't'; });
    event_fd ready([&](event_fd&, unsigned) {
        order += 'd';
        uloop_end();
    });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    uloop_timeout_set(&due, 0);
    run();
    EXPECT_EQ(order, "td");
}

TEST_F(UloopTimer, EndingTheLoopDoesNotKeepOthersThatAreDueFromFiring) {
    bool fired = false;
    timer end([](timer&) { uloop_end(); });
    timer due([&](timer&) { fired = true; });
    timer later([](timer&) { ADD_FAILURE(); });
    uloop_timeout_set(&end, 0);
    uloop_timeout_set(&due, 0);
    uloop_timeout_set(&later, 100000);
    run();
    EXPECT_TRUE(fired);
    EXPECT_TRUE(later.pending);
}

TEST_F(UloopTimer, DoneCancelsAll) {
    timer one([](timer&) { ADD_FAILURE(); });
    timer other([](timer&) { ADD_FAILURE(); });
    uloop_timeout_set(&one, 0);
    uloop_timeout_set(&other, 1000);
    uloop_done();
    EXPECT_FALSE(one.pending);
    EXPECT_FALSE(other.pending);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(uloop_run_timeout(1), 0);
}

} // namespace
