/// System calls are counted from a trace when they were entered in time, and only then.
#include "bench/system_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using tarn::bench::entered_calls;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

TEST(SystemCalls, CountFromTheBeginningUpToTheEnd) {
    std::istringstream trace("7 99.999999 write(1, \"x\", 1) = 1\n"
                             "7 100.000000 read(0, \"100\", 3) = 3\n"
                             "8 104.500000 epoll_wait(3, [], 64, 0) = 0\n"
                             "7 109.999999 epoll_wait(4, [], 64, 0) = 0\n"
                             "7 110.000000 write(1, \"x\", 1) = 1\n");
    EXPECT_THAT(entered_calls(trace, 100, 110),
                UnorderedElementsAre(Pair("read", 1), Pair("epoll_wait", 2)));
}

TEST(SystemCalls, OneThatWasUnderWayDoesNotCountWhenItEnds) {
    std::istringstream trace("7 99.000000 epoll_wait(3,  <unfinished ...>\n"
                             "7 105.000000 <... epoll_wait resumed>[], 64, -1) = 0\n");
    EXPECT_THAT(entered_calls(trace, 100, 110), IsEmpty());
}

TEST(SystemCalls, OneThatHasNotEndedCounts) {
    std::istringstream trace(
        "7 105.000000 futex(0x7f0000000000, FUTEX_WAIT, 2, NULL <unfinished ...>\n");
    EXPECT_THAT(entered_calls(trace, 100, 110), UnorderedElementsAre(Pair("futex", 1)));
}

TEST(SystemCalls, SignalsAndEndsOfProcessesAreNone) {
    std::istringstream trace("7 105.000000 --- SIGTERM {si_signo=SIGTERM} ---\n"
                             "7 105.100000 +++ exited with 0 +++\n");
    EXPECT_THAT(entered_calls(trace, 100, 110), IsEmpty());
}

} // namespace
