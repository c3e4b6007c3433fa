/// Tests the wake-up of epoll_loop where it comes late or not at all. The program is linked with
/// --wrap for write(), which a thread can be held in front of, or which can be made to fail.
#include "tarn/loops/epoll_loop.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/types.h>

#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

namespace {

using tarn::loops::epoll_loop;
using namespace std::chrono_literals;

/// Runs ahead of the writes of this thread: 0 lets the write happen, an errno makes it fail.
thread_local std::function<int()> before_write;

} // namespace

// The names are those the linker gives to wrapped calls.
extern "C" {
ssize_t __real_write(int descriptor, const void* data, size_t size);

ssize_t __wrap_write(int descriptor, const void* data, size_t size) {
    if (before_write) {
        if (const int error = before_write(); error != 0) {
            errno = error;
            return -1;
        }
    }
    return __real_write(descriptor, data, size);
}
}

namespace {

bool readable(const epoll_loop& loop, int wait_ms = 0) {
    pollfd source{loop.fd(), POLLIN, 0};
    return ::poll(&source, 1, wait_ms) == 1;
}

/// A thread that makes a call of the loop and is held where it would wake it.
class late_waker {
public:
    explicit late_waker(std::function<void()> call)
        : thread_([this, made = std::move(call)] {
            before_write = [this] {
                held_.set_value();
                go_on_.get_future().wait();
                before_write = nullptr;
                return 0;
            };
            made();
        }) {
        held_.get_future().wait();
    }
    ~late_waker() {
        if (thread_.joinable()) {
            wake();
        }
    }
    late_waker(const late_waker&) = delete;
    late_waker& operator=(const late_waker&) = delete;

    /// Lets it go on, to its end.
    void wake() {
        go_on_.set_value();
        thread_.join();
    }

private:
    std::promise<void> held_;
    std::promise<void> go_on_;
    std::thread thread_; // uses the others
};

TEST(EpollWakeup, ThatComesAfterItsTaskHasRunCostsOneTurn) {
    epoll_loop loop;
    int ran = 0;
    late_waker poster([&] { loop.post([&ran] { ++ran; }); });
    EXPECT_FALSE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 1U) << "a turn that has another reason";
    poster.wake();
    EXPECT_TRUE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 0U);
    EXPECT_FALSE(readable(loop));
    EXPECT_EQ(ran, 1);
}

TEST(EpollWakeup, OfAStopThatComesAfterAnotherTurnCostsOneTurn) {
    epoll_loop loop;
    late_waker stopper([&loop] { loop.stop(); });
    EXPECT_EQ(loop.dispatch(), 0U);
    EXPECT_EQ(loop.dispatch(), 0U);
    stopper.wake();
    EXPECT_TRUE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 0U);
    EXPECT_FALSE(readable(loop));
    loop.run(); // the stop is still there
}

TEST(EpollWakeup, ThatComesAfterTheTurnOfATimerCostsOneTurn) {
    epoll_loop loop;
    int ran = 0;
    late_waker poster([&] { loop.post([&ran] { ++ran; }); });
    const auto timer = loop.create_timer();
    timer->set_handler([&ran] { ++ran; });
    timer->set_timeout(0s);
    ASSERT_TRUE(readable(loop, 20000));
    EXPECT_EQ(loop.dispatch(), 2U);
    poster.wake();
    EXPECT_TRUE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 0U);
    EXPECT_FALSE(readable(loop));
    EXPECT_EQ(ran, 2);
}

/// What relies on a wake-up whose task another turn has run already. It is done on another thread,
/// since it must not have to wait for the late one.
class EpollLateWakeup : public testing::Test {
protected:
    EpollLateWakeup() {
        EXPECT_EQ(loop_.dispatch(), 1U);
        EXPECT_FALSE(readable(loop_));
    }

    /// Does `call`, then lets the late thread go on.
    void do_before_it(const std::function<void()>& call) {
        const auto done = std::async(std::launch::async, call);
        EXPECT_EQ(done.wait_for(10s), std::future_status::ready);
        EXPECT_FALSE(readable(loop_));
        poster_.wake();
        done.wait();
    }

    epoll_loop loop_;
    int ran_ = 0;
    late_waker poster_{[this] {
        loop_.post([this] { ++ran_; });
    }};
};

TEST_F(EpollLateWakeup, BringsWhatIsPostedBeforeIt) {
    do_before_it([this] { loop_.post([this] { ++ran_; }); });
    EXPECT_TRUE(readable(loop_));
    EXPECT_EQ(loop_.dispatch(), 1U);
    EXPECT_FALSE(readable(loop_));
    EXPECT_EQ(ran_, 2);
}

TEST_F(EpollLateWakeup, BringsWhatAnotherTurnHasLeft) {
    do_before_it([this] {
        loop_.post([this] { loop_.post([this] { ++ran_; }); });
        loop_.post([] { throw std::runtime_error("a task"); });
        loop_.post([this] { ++ran_; });
        EXPECT_THROW(loop_.dispatch(), std::runtime_error);
    });
    EXPECT_TRUE(readable(loop_));
    EXPECT_EQ(loop_.dispatch(), 2U);
    EXPECT_FALSE(readable(loop_));
    EXPECT_EQ(ran_, 3);
}

TEST_F(EpollLateWakeup, BringsAStop) {
    std::thread runner([this] { loop_.run(); });
    do_before_it([this] { loop_.stop(); });
    runner.join();
    loop_.dispatch();
    EXPECT_FALSE(readable(loop_));
}

TEST_F(EpollLateWakeup, IsFollowedByOnesThatAreNotLate) {
    poster_.wake();
    EXPECT_EQ(loop_.dispatch(), 0U);
    for (int round = 0; round < 3; ++round) {
        EXPECT_FALSE(readable(loop_));
        loop_.post([this] { ++ran_; });
        EXPECT_TRUE(readable(loop_));
        EXPECT_EQ(loop_.dispatch(), 1U);
    }
    EXPECT_FALSE(readable(loop_));
}

TEST(EpollWakeup, ThatIsLateMayMeetTheEndOfTheLoop) {
    auto loop = std::make_unique<epoll_loop>();
    int ran = 0;
    late_waker poster([&] { loop->post([&ran] { ++ran; }); });
    EXPECT_EQ(loop->dispatch(), 1U);
    const auto ended = std::async(std::launch::async, [&loop] { loop.reset(); });
    poster.wake();
    EXPECT_EQ(ended.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(ran, 1);
}

TEST(EpollWakeup, ThatTheSystemRefusesIsTriedAgainByTheNextPost) {
    epoll_loop loop;
    int ran = 0;
    before_write = [] {
        return EIO;
    };
    loop.post([&ran] { ++ran; });
    loop.stop();
    EXPECT_FALSE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 1U);
    loop.post([&] {
        ++ran;
        loop.post([&ran] { ++ran; });
    });
    EXPECT_EQ(loop.dispatch(), 1U) << "the next is left, and cannot wake either";
    EXPECT_FALSE(readable(loop));
    before_write = nullptr;
    loop.post([&ran] { ++ran; });
    EXPECT_TRUE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 2U);
    EXPECT_FALSE(readable(loop));
    EXPECT_EQ(ran, 4);
}

TEST(EpollWakeup, ThatIsInterruptedIsRepeated) {
    epoll_loop loop;
    int writes = 0;
    before_write = [&writes] {
        return ++writes < 4 ? EINTR : 0;
    };
    loop.post([] {});
    before_write = nullptr;
    EXPECT_EQ(writes, 4);
    EXPECT_TRUE(readable(loop));
    EXPECT_EQ(loop.dispatch(), 1U);
    EXPECT_FALSE(readable(loop));
}

} // namespace
