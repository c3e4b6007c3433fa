/// Tests the arithmetic of deadlines.
#include "clock.h"

#include <gtest/gtest.h>

namespace {

using tarn::loops::detail::deadline_after;
using tarn::loops::detail::never;
using namespace std::chrono_literals;

TEST(Deadline, IsTheSumOfNowAndTheDelay) {
    EXPECT_EQ(deadline_after(5ns, 2s), 2s + 5ns);
}

TEST(Deadline, IsNowForADelayOfZeroOrLess) {
    EXPECT_EQ(deadline_after(5ns, 0s), 5ns);
    EXPECT_EQ(deadline_after(5ns, -1s), 5ns);
    EXPECT_EQ(deadline_after(5ns, std::chrono::seconds::min()), 5ns);
}

TEST(Deadline, IsNeverForTheLargestDelay) {
    EXPECT_EQ(deadline_after(0ns, std::chrono::seconds::max()), never);
    EXPECT_EQ(deadline_after(never, std::chrono::seconds::max()), never);
}

TEST(Deadline, DoesNotOverflowAtTheLimitOfNanoseconds) {
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(never);
    EXPECT_EQ(deadline_after(0ns, whole), std::chrono::nanoseconds(whole));
    EXPECT_EQ(deadline_after(0ns, whole + 1s), never);
    const auto rest = never - whole;
    EXPECT_EQ(deadline_after(rest, whole), never);
    EXPECT_EQ(deadline_after(rest + 1ns, whole), never);
    EXPECT_EQ(deadline_after(rest + 1ns, whole - 1s),
              std::chrono::nanoseconds(whole) - 1s + rest + 1ns);
}

} // namespace
