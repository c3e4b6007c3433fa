/// Tests what epoll_loop does when the system refuses a descriptor. The program is linked with
/// --wrap for the four calls of its construction, each of which can be made to fail.
#include "tarn/loops/epoll_loop.h"

#include "loops/open_descriptors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>

namespace {

// The call that fails next time, and with what.
std::string failing_call;
int failure = 0;

bool fails(const char* call) {
    if (failing_call != call) {
        return false;
    }
    errno = failure;
    return true;
}

// The error that the construction of a loop ends with.
std::optional<std::error_code> construction_error(const char* call, int error) {
    failing_call = call;
    failure = error;
    std::optional<std::error_code> result;
    try {
        const tarn::loops::epoll_loop loop;
    } catch (const std::system_error& thrown) {
        result = thrown.code();
    }
    failing_call.clear();
    return result;
}

} // namespace

// The names are those the linker gives to wrapped calls.
extern "C" {
int __real_epoll_create1(int flags);
int __real_eventfd(unsigned int count, int flags);
int __real_timerfd_create(int clock, int flags);
int __real_epoll_ctl(int epoll, int operation, int fd, void* event);

int __wrap_epoll_create1(int flags) {
    return fails("epoll_create1") ? -1 : __real_epoll_create1(flags);
}

int __wrap_eventfd(unsigned int count, int flags) {
    return fails("eventfd") ? -1 : __real_eventfd(count, flags);
}

int __wrap_timerfd_create(int clock, int flags) {
    return fails("timerfd_create") ? -1 : __real_timerfd_create(clock, flags);
}

int __wrap_epoll_ctl(int epoll, int operation, int fd, void* event) {
    return fails("epoll_ctl") ? -1 : __real_epoll_ctl(epoll, operation, fd, event);
}
}

namespace {

void expect_failure_without_a_leak(const char* call, int error) {
    const auto before = tarn::test::open_descriptors();
    EXPECT_EQ(construction_error(call, error), std::error_code(error, std::generic_category()));
    EXPECT_EQ(tarn::test::open_descriptors(), before);
}

TEST(EpollConstruction, ThrowsTheErrorOfEpollCreateAndLeaksNothing) {
    expect_failure_without_a_leak("epoll_create1", EMFILE);
}

TEST(EpollConstruction, ThrowsTheErrorOfEventfdAndLeaksNothing) {
    expect_failure_without_a_leak("eventfd", ENFILE);
}

TEST(EpollConstruction, ThrowsTheErrorOfTimerfdCreateAndLeaksNothing) {
    expect_failure_without_a_leak("timerfd_create", EMFILE);
}

TEST(EpollConstruction, ThrowsTheErrorOfEpollCtlAndLeaksNothing) {
    expect_failure_without_a_leak("epoll_ctl", ENOMEM);
}

TEST(EpollConstruction, SucceedsWhenTheSystemAgrees) {
    EXPECT_EQ(construction_error("none of them", 0), std::nullopt);
}

} // namespace
