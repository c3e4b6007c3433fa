/// The delays between attempts to connect.
#include "tarn/ext/backoff.h"

#include "tarn/client.h"

#include <gtest/gtest.h>

#include <climits>
#include <set>

namespace tarn::ext {
namespace {

using std::chrono::hours;
using std::chrono::seconds;

TEST(Backoff, AConstantDelayStays) {
    const client::backoff_function delay = backoff::constant(seconds(3));
    EXPECT_EQ(delay(1), seconds(3));
    EXPECT_EQ(delay(LLONG_MAX), seconds(3));
}

TEST(Backoff, AnExponentialDelayDoublesUpToTheMost) {
    const client::backoff_function delay = backoff::exponential(seconds(1), seconds(60));
    EXPECT_EQ(delay(1), seconds(1));
    EXPECT_EQ(delay(2), seconds(2));
    EXPECT_EQ(delay(3), seconds(4));
    EXPECT_EQ(delay(6), seconds(32));
    EXPECT_EQ(delay(7), seconds(60));
    EXPECT_EQ(delay(1000), seconds(60));
    EXPECT_EQ(backoff::exponential(seconds(5), hours(1))(3), seconds(20));
}

TEST(Backoff, NoNumberOfAnAttemptOverflows) {
    const auto delay = backoff::exponential(seconds(3), seconds::max());
    EXPECT_EQ(delay(LLONG_MAX), seconds::max());
    EXPECT_EQ(delay(63), seconds::max());
    EXPECT_EQ(delay(62), seconds(3LL << 61));
    EXPECT_EQ(delay(0), seconds(3));
    EXPECT_EQ(delay(LLONG_MIN), seconds(3));
    EXPECT_GE(delay.with_jitter()(LLONG_MAX), seconds::max() / 2);
}

TEST(Backoff, NoDelayTurnsReconnectionOff) {
    EXPECT_EQ(backoff::constant(seconds(0))(1), seconds(1));
    EXPECT_EQ(backoff::constant(seconds::min())(1), seconds(1));
    EXPECT_EQ(backoff::exponential(seconds(-5), seconds(-7))(9), seconds(1));
    EXPECT_EQ(backoff::exponential(seconds(9), seconds(2))(9), seconds(9));
    for (int n = 0; n < 100; ++n) {
        EXPECT_EQ(backoff::constant(seconds(1)).with_jitter()(1), seconds(1));
    }
}

TEST(Backoff, JitterSpreadsDelaysOverTheirUpperHalf) {
    const auto delay = backoff::constant(seconds(10)).with_jitter();
    std::set<seconds> seen;
    for (int n = 0; n < 10000; ++n) {
        seen.insert(delay(1));
    }
    EXPECT_EQ(seen, (std::set<seconds>{seconds(5), seconds(6), seconds(7), seconds(8), seconds(9),
                                       seconds(10)}));
}

TEST(Backoff, TwoProgramsDoNotComeBackTogether) {
    const auto base = backoff::constant(hours(10000));
    EXPECT_NE(base.with_jitter()(1), base.with_jitter()(1)) << "once in 18,000,000 they do";
}

} // namespace
} // namespace tarn::ext
