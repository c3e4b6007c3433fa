/// Many threads on one client, while the bus keeps dying: nothing is lost, nothing runs twice.
#include "stress.h"

#include <gtest/gtest.h>

#include <iostream>

namespace {

using namespace tarn::test;

TEST(Threads, EveryCallEndsOnceWhileTheBusDiesTwentyTimes) {
    stress_counts counts;
    run_stress({}, counts);
    EXPECT_TRUE(invariants_hold(counts));
    EXPECT_EQ(counts.kills, 21);
    // The run meant something.
    EXPECT_GT(counts.completed_calls, 0);
    EXPECT_GT(counts.calls.released, 0);
    EXPECT_GT(counts.aborted, 0);
    EXPECT_GT(counts.served, 0);
    // Each end of a connection came upon one at work.
    EXPECT_GE(counts.connections, counts.kills + counts.cancels);
    RecordProperty("calls", static_cast<int>(counts.calls.started));
    std::cout << counts;
}

} // namespace
