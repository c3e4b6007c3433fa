/// Tests the descriptors of epoll_loop: nesting, their number and flags, and what a burst costs.
#include "tarn/loops/epoll_loop.h"

#include "loops/open_descriptors.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using tarn::loops::epoll_loop;
using tarn::test::open_descriptors;
using tarn::test::opened_since;
using namespace std::chrono_literals;
using timer_ptr = std::shared_ptr<tarn::utils::event_loop::timer>;

constexpr int patience_ms = 20000;

bool readable(int fd, int wait_ms = 0) {
    pollfd source{fd, POLLIN, 0};
    return ::poll(&source, 1, wait_ms) == 1;
}

// The field of /proc/self/fdinfo that begins with `name`; -1 when the descriptor has none.
long fdinfo(int fd, const std::string& name) {
    std::ifstream file("/proc/self/fdinfo/" + std::to_string(fd));
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            return std::stol(line.substr(name.size() + 1), nullptr, 16);
        }
    }
    return -1;
}

long eventfd_count(const std::vector<int>& descriptors) {
    for (const int fd : descriptors) {
        if (const long count = fdinfo(fd, "eventfd-count"); count >= 0) {
            return count;
        }
    }
    return -1;
}

TEST(EpollFd, IsReadableWhileATaskWaits) {
    epoll_loop loop;
    EXPECT_FALSE(readable(loop.fd()));
    EXPECT_EQ(loop.dispatch(), 0U);
    loop.post([] {});
    EXPECT_TRUE(readable(loop.fd()));
    EXPECT_EQ(loop.dispatch(), 1U);
    EXPECT_FALSE(readable(loop.fd()));
}

TEST(EpollFd, IsReadableWhileATimerIsDue) {
    epoll_loop loop;
    const auto made = loop.create_timer();
    made->set_handler([] {});
    made->set_timeout(1s);
    EXPECT_FALSE(readable(loop.fd()));
    EXPECT_EQ(loop.dispatch(), 0U);
    ASSERT_TRUE(readable(loop.fd(), patience_ms));
    EXPECT_EQ(loop.dispatch(), 1U);
    EXPECT_FALSE(readable(loop.fd()));
}

TEST(EpollFd, IsNotReadableForADueTimerWithoutAHandler) {
    epoll_loop loop;
    const auto made = loop.create_timer();
    made->set_timeout(0s);
    EXPECT_TRUE(readable(loop.fd(), patience_ms));
    EXPECT_EQ(loop.dispatch(), 0U);
    EXPECT_FALSE(readable(loop.fd()));
    made->set_handler([] {});
    EXPECT_TRUE(readable(loop.fd(), patience_ms));
    EXPECT_EQ(loop.dispatch(), 1U);
}

TEST(EpollFd, FallsSilentAfterOneTurnWhenAllTimersWereStopped) {
    epoll_loop loop;
    const auto made = loop.create_timer();
    made->set_handler([] {});
    made->set_timeout(0s);
    made->stop();
    EXPECT_EQ(loop.dispatch(), 0U);
    EXPECT_FALSE(readable(loop.fd()));
}

TEST(EpollFd, StaysReadableForWhatATaskPosted) {
    epoll_loop loop;
    std::vector<int> order;
    loop.post([&] {
        order.push_back(1);
        loop.post([&order] { order.push_back(2); });
    });
    EXPECT_EQ(loop.dispatch(), 1U);
    EXPECT_TRUE(readable(loop.fd()));
    EXPECT_EQ(loop.dispatch(), 1U);
    EXPECT_FALSE(readable(loop.fd()));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(EpollFd, StaysReadableForATimerArmedAnewWithoutDelay) {
    epoll_loop loop;
    const auto made = loop.create_timer();
    made->set_handler([&made] { made->set_timeout(0s); });
    made->set_timeout(0s);
    for (int turn = 0; turn < 3; ++turn) {
        ASSERT_TRUE(readable(loop.fd(), patience_ms));
        EXPECT_EQ(loop.dispatch(), 1U);
    }
}

TEST(EpollFd, StaysReadableForWhatAnExceptionLeftBehind) {
    epoll_loop loop;
    int ran = 0;
    const auto made = loop.create_timer();
    made->set_handler([&ran] { ++ran; });
    made->set_timeout(0s);
    loop.post([] { throw std::runtime_error("a task"); });
    loop.post([] { throw std::runtime_error("another"); });
    loop.post([&ran] { ++ran; });
    EXPECT_THROW(loop.dispatch(), std::runtime_error);
    EXPECT_TRUE(readable(loop.fd()));
    EXPECT_THROW(loop.dispatch(), std::runtime_error);
    EXPECT_TRUE(readable(loop.fd()));
    EXPECT_EQ(loop.dispatch(), 2U);
    EXPECT_FALSE(readable(loop.fd()));
    EXPECT_EQ(ran, 2);
}

TEST(EpollFd, DispatchNeitherObeysNorUsesUpAStop) {
    epoll_loop loop;
    int ran = 0;
    loop.stop();
    for (int count = 0; count < 2; ++count) {
        loop.post([&ran] { ++ran; });
    }
    EXPECT_EQ(loop.dispatch(), 2U);
    loop.post([&ran] { ++ran; });
    loop.run();
    EXPECT_EQ(ran, 2);
}

TEST(EpollFd, NestsIntoAnEpollLoopOfTheApplication) {
    epoll_loop inner;
    const int outer = ::epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(outer, 0);
    epoll_event event{};
    event.events = EPOLLIN;
    ASSERT_EQ(::epoll_ctl(outer, EPOLL_CTL_ADD, inner.fd(), &event), 0);
    EXPECT_EQ(::epoll_wait(outer, &event, 1, 0), 0);

    int ran = 0;
    std::thread poster([&inner, &ran] {
        for (int count = 0; count < 100; ++count) {
            inner.post([&ran] { ++ran; });
        }
    });
    while (ran < 100) {
        ASSERT_EQ(::epoll_wait(outer, &event, 1, patience_ms), 1);
        inner.dispatch();
    }
    poster.join();
    inner.dispatch();
    EXPECT_EQ(::epoll_wait(outer, &event, 1, 0), 0);
    ::close(outer);
}

TEST(EpollFd, NestsIntoAnotherLoopOfItsKind) {
    // The outer loop has no descriptors of its own to watch: poll both, as an application would.
    epoll_loop outer;
    epoll_loop inner;
    std::vector<int> order;
    outer.post([&] {
        order.push_back(1);
        inner.post([&] {
            order.push_back(2);
            outer.post([&order] { order.push_back(3); });
        });
    });
    while (order.size() < 3) {
        std::array<pollfd, 2> sources{{{outer.fd(), POLLIN, 0}, {inner.fd(), POLLIN, 0}}};
        ASSERT_GT(::poll(sources.data(), sources.size(), patience_ms), 0);
        if (sources[0].revents != 0) {
            outer.dispatch();
        }
        if (sources[1].revents != 0) {
            inner.dispatch();
        }
    }
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(EpollFd, ABurstOfPostsCostsOneWrite) {
    const std::set<int> before = open_descriptors();
    epoll_loop loop;
    const std::vector<int> own = opened_since(before);
    ASSERT_EQ(eventfd_count(own), 0);
    for (int count = 0; count < 1000; ++count) {
        loop.post([] {});
    }
    EXPECT_EQ(eventfd_count(own), 1);
    EXPECT_EQ(loop.dispatch(), 1000U);
    EXPECT_EQ(eventfd_count(own), 0);
}

TEST(EpollFd, TenThousandTimersCostNoDescriptors) {
    const std::set<int> before = open_descriptors();
    epoll_loop loop;
    EXPECT_EQ(opened_since(before).size(), 3U);
    std::vector<timer_ptr> timers;
    for (int count = 0; count < 10000; ++count) {
        timers.push_back(loop.create_timer());
        timers.back()->set_timeout(std::chrono::seconds(100 + count % 7));
    }
    EXPECT_EQ(opened_since(before).size(), 3U);
}

TEST(EpollFd, AllDescriptorsAreCloseOnExec) {
    const std::set<int> before = open_descriptors();
    epoll_loop loop;
    for (const int fd : opened_since(before)) {
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
}

TEST(EpollFd, AllDescriptorsAreClosedWithTheLoopThoughTimersLiveOn) {
    const std::set<int> before = open_descriptors();
    timer_ptr survivor;
    {
        epoll_loop loop;
        survivor = loop.create_timer();
        survivor->set_timeout(5s);
    }
    EXPECT_TRUE(opened_since(before).empty());
}

} // namespace
