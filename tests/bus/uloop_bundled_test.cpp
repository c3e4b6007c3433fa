/// What the bundled uloop does where uloop goes wrong or waits for ever, and where its timers are
/// more exact: see the table in bus/README.md.
#include "bus.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "uloop_fixture.h"

namespace {

using namespace ubox_test;

using BundledUloop = uloop_test;

bool is_non_blocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

long long microseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

TEST_F(BundledUloop, AddingWhatCannotBeWatchedFailsAndChangesNothing) {
    watched file(fileno(std::tmpfile()), [](watched&, unsigned) {});
    EXPECT_EQ(uloop_fd_add(&file, ULOOP_READ), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(file.registered);
    EXPECT_FALSE(is_non_blocking(file.fd));
}

TEST_F(BundledUloop, WithoutInitFails) {
    uloop_done();
    EXPECT_EQ(uloop_run(), -1);
    event_fd ready([](event_fd&, unsigned) {});
    EXPECT_EQ(uloop_fd_add(&ready, ULOOP_READ), -1);
}

TEST_F(BundledUloop, EndsWhenACallbackCallsDone) {
    timer end([](timer&) { uloop_done(); });
    uloop_timeout_set(&end, 0);
    EXPECT_EQ(uloop_run(), 0);
}

TEST_F(BundledUloop, IsCountedNowhere) {
    EXPECT_EQ(uloop_init(), 0);
    EXPECT_EQ(uloop_init(), 0);
    uloop_done();
    EXPECT_EQ(uloop_run(), -1);
}

TEST_F(BundledUloop, AfterDoneTakesRecordsThatWereLeftRegistered) {
    event_fd ready([](event_fd&, unsigned) { uloop_end(); });
    uloop_fd_add(&ready, ULOOP_READ);
    uloop_done();
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_TRUE(ready.registered);
    ASSERT_EQ(uloop_fd_add(&ready, ULOOP_READ), 0);
    ready.raise();
    run();
}

TEST_F(BundledUloop, NeverFiresTooEarly) {
    timer end([](timer&) { uloop_end(); });
    uloop_timeout_set(&end, 30);
    const timeval due = end.time;
    run();
    EXPECT_GE(microseconds_now(), due.tv_sec * 1000000LL + due.tv_usec);
}

TEST_F(BundledUloop, SetToANegativeTimeFiresAtOnce) {
    timer end([](timer&) { uloop_end(); });
    EXPECT_EQ(uloop_timeout_set(&end, -1000), 0);
    EXPECT_EQ(uloop_timeout_remaining(&end), 0);
    run();
    EXPECT_FALSE(end.pending);
}

TEST_F(BundledUloop, RemainingIsRoundedUpSoThatNobodyWaitsTooShort) {
    timer one([](timer&) {});
    for (int i = 0; i < 100; ++i) {
        uloop_timeout_set(&one, 1000);
        const int remaining = uloop_timeout_remaining(&one);
        const long long due = one.time.tv_sec * 1000000LL + one.time.tv_usec;
        EXPECT_GE(remaining * 1000LL, due - microseconds_now());
    }
}

TEST_F(BundledUloop, SignalHandlerKeepsErrno) {
    uloop_done();
    const int first_own = dup(0);
    close(first_own);
    ASSERT_EQ(uloop_init(), 0);
    // Without the loop's two descriptors the handler's write fails and sets errno.
    close(first_own);
    close(first_own + 1);
    errno = E2BIG;
    raise(SIGINT);
    EXPECT_EQ(errno, E2BIG);
}

} // namespace
