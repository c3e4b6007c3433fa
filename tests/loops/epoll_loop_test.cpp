/// Tests what epoll_loop adds to the interface: run(), stop(), its end, and its exceptions.
#include "tarn/loops/epoll_loop.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using tarn::loops::epoll_loop;
using namespace std::chrono_literals;
using timer_ptr = std::shared_ptr<tarn::utils::event_loop::timer>;

class at_end {
public:
    explicit at_end(std::function<void()> action)
        : action_(std::move(action)) {}
    ~at_end() { action_(); }
    at_end(const at_end&) = delete;
    at_end& operator=(const at_end&) = delete;

private:
    const std::function<void()> action_;
};

TEST(EpollLoop, StopInATaskEndsRunAndKeepsTheTasksBehindIt) {
    epoll_loop loop;
    std::vector<int> order;
    loop.post([&] {
        order.push_back(1);
        loop.stop();
    });
    loop.post([&] {
        order.push_back(2);
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(order, std::vector<int>{1});
    loop.run();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(EpollLoop, StopInATimersHandlerKeepsTheOtherDueTimers) {
    epoll_loop loop;
    int fired = 0;
    std::vector<timer_ptr> timers;
    for (int count = 0; count < 2; ++count) {
        timers.push_back(loop.create_timer());
        timers.back()->set_handler([&] {
            ++fired;
            loop.stop();
        });
        timers.back()->set_timeout(0s);
    }
    loop.run();
    EXPECT_EQ(fired, 1);
    loop.run();
    EXPECT_EQ(fired, 2);
}

TEST(EpollLoop, StopBeforeRunMakesTheNextRunReturnAtOnce) {
    epoll_loop loop;
    int runs = 0;
    loop.stop();
    loop.stop();
    loop.post([&] {
        ++runs;
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(runs, 0);
    loop.run();
    EXPECT_EQ(runs, 1);
}

TEST(EpollLoop, StopFromAnotherThreadEndsARunThatWaits) {
    epoll_loop loop;
    std::promise<void> running;
    loop.post([&running] { running.set_value(); });
    std::thread stopper([&] {
        running.get_future().wait();
        loop.stop();
    });
    loop.run();
    stopper.join();
}

TEST(EpollLoop, StopFromAnotherThreadIsNeverLostHoweverItMeetsRun) {
    epoll_loop loop;
    for (int round = 0; round < 2000; ++round) {
        std::thread stopper([&loop] { loop.stop(); });
        loop.run();
        stopper.join();
    }
}

TEST(EpollLoop, MayBeDestroyedAsSoonAsRunHasReturned) {
    for (int round = 0; round < 1000; ++round) {
        std::thread stopper;
        {
            epoll_loop loop;
            stopper = std::thread([&loop, round] {
                if (round % 2 == 0) {
                    loop.stop();
                } else {
                    loop.post([&loop] { loop.stop(); });
                }
            });
            loop.run();
        }
        stopper.join();
    }
}

TEST(EpollLoop, StopIsKeptWhenATaskThrows) {
    epoll_loop loop;
    loop.post([&loop] {
        loop.stop();
        throw std::runtime_error("a task");
    });
    EXPECT_THROW(loop.run(), std::runtime_error);
    loop.run();
}

TEST(EpollLoop, RunGoesOnAfterAnExceptionWithWhatWasLeft) {
    epoll_loop loop;
    std::vector<int> order;
    loop.post([&] { order.push_back(1); });
    loop.post([] { throw std::runtime_error("a task"); });
    loop.post([&] { order.push_back(2); });
    loop.post([&] { loop.stop(); });
    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_EQ(order, std::vector<int>{1});
    loop.run();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(EpollLoop, RunAndDispatchRefuseToBeNested) {
    epoll_loop loop;
    bool ran = false;
    loop.post([&] {
        EXPECT_THROW(loop.run(), std::logic_error);
        EXPECT_THROW(loop.dispatch(), std::logic_error);
        ran = true;
        loop.stop();
    });
    loop.run();
    EXPECT_TRUE(ran);
    loop.post([&] { EXPECT_THROW(loop.run(), std::logic_error); });
    EXPECT_EQ(loop.dispatch(), 1U);
}

TEST(EpollLoop, RunRefusesASecondThread) {
    epoll_loop loop;
    std::promise<void> running;
    std::thread first([&] {
        loop.post([&running] { running.set_value(); });
        loop.run();
    });
    running.get_future().wait();
    EXPECT_THROW(loop.run(), std::logic_error);
    EXPECT_THROW(loop.dispatch(), std::logic_error);
    loop.stop();
    first.join();
}

TEST(EpollLoop, MayRunOnDifferentThreadsOneAfterTheOther) {
    epoll_loop loop;
    int plain = 0;
    for (int round = 0; round < 4; ++round) {
        loop.post([&] {
            ++plain;
            loop.stop();
        });
        std::thread([&loop] { loop.run(); }).join();
    }
    EXPECT_EQ(plain, 4);
}

TEST(EpollLoop, SeveralLoopsOfAProcessRunSideBySide) {
    constexpr int rounds = 1000;
    epoll_loop left;
    epoll_loop right;
    std::function<void(int)> ping = [&](int round) {
        right.post([&, round] {
            if (round == rounds) {
                left.stop();
                right.stop();
            } else {
                left.post([&ping, round] { ping(round + 1); });
            }
        });
    };
    ping(0);
    std::thread other([&right] { right.run(); });
    left.run();
    other.join();
}

TEST(EpollLoop, AnEmptyTaskIsIgnored) {
    epoll_loop loop;
    loop.post(nullptr);
    loop.post(std::function<void()>());
    EXPECT_EQ(loop.dispatch(), 0U);
}

TEST(EpollLoop, AnEmptyHandlerCountsAsNone) {
    epoll_loop loop;
    int fired = 0;
    const auto made = loop.create_timer();
    made->set_handler([&fired] { ++fired; });
    made->set_handler(nullptr);
    made->set_timeout(0s);
    EXPECT_EQ(loop.dispatch(), 0U);
    made->set_handler([&fired] { ++fired; });
    EXPECT_EQ(loop.dispatch(), 1U);
    EXPECT_EQ(fired, 1);
}

TEST(EpollLoop, ATaskWhoseCopyThrowsIsNotPosted) {
    struct uncopyable {
        uncopyable() = default;
        uncopyable(const uncopyable& other)
            : armed(other.armed) {
            if (*armed) {
                throw std::runtime_error("a copy");
            }
        }
        uncopyable& operator=(const uncopyable&) = delete;
        void operator()() const { ADD_FAILURE() << "a task that was refused has run"; }
        std::shared_ptr<bool> armed = std::make_shared<bool>(false);
    };
    epoll_loop loop;
    const uncopyable original;
    const std::function<void()> task(original);
    *original.armed = true;
    EXPECT_THROW(loop.post(task), std::runtime_error);
    EXPECT_EQ(loop.dispatch(), 0U);
}

TEST(EpollLoop, CopiesTasksOutsideItsLock) {
    struct nosy {
        explicit nosy(epoll_loop& target)
            : loop(target) {}
        nosy(const nosy& other)
            : loop(other.loop) {
            loop.post([] {});
        }
        nosy& operator=(const nosy&) = delete;
        void operator()() const {}
        epoll_loop& loop;
    };
    epoll_loop loop;
    loop.post(nosy(loop));
    EXPECT_GE(loop.dispatch(), 2U);
}

TEST(EpollLoop, DropsWhatDestructorsOfItsLastTasksPost) {
    int destroyed = 0;
    bool ran = false;
    {
        epoll_loop loop;
        auto probe = std::make_shared<at_end>([&] {
            ++destroyed;
            loop.post([&ran] { ran = true; });
            const auto orphan = loop.create_timer();
            ASSERT_NE(orphan, nullptr);
            orphan->set_timeout(0s);
        });
        loop.post([probe] {});
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(ran);
}

TEST(EpollLoop, TimersMayBeUsedAndReleasedByOtherThreadsWhileItIsDestroyed) {
    for (int round = 0; round < 100; ++round) {
        auto loop = std::make_unique<epoll_loop>();
        std::vector<timer_ptr> timers;
        for (int count = 0; count < 100; ++count) {
            timers.push_back(loop->create_timer());
            timers.back()->set_timeout(10s);
        }
        std::promise<void> begin;
        std::thread user([&timers, gate = begin.get_future()] {
            gate.wait();
            for (timer_ptr& each : timers) {
                each->set_handler([] {});
                each->set_timeout(1s);
                each.reset();
            }
        });
        begin.set_value();
        loop.reset();
        user.join();
    }
}

TEST(EpollLoop, IsNotEndedByASignal) {
    static std::atomic<int> caught{0};
    struct sigaction action {};
    action.sa_handler = [](int) {
        ++caught;
    }; // without SA_RESTART
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);

    epoll_loop loop;
    std::promise<void> running;
    bool later = false;
    loop.post([&running] { running.set_value(); });
    std::thread runner([&loop] { loop.run(); });
    running.get_future().wait();
    for (int count = 1; count <= 50; ++count) {
        ASSERT_EQ(::pthread_kill(runner.native_handle(), SIGUSR1), 0);
        while (caught < count) {
            std::this_thread::yield();
        }
    }
    loop.post([&] {
        later = true;
        loop.stop();
    });
    runner.join();
    EXPECT_TRUE(later);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(EpollLoop, TimersFireOnTimeInARunThatWaits) {
    epoll_loop loop;
    const auto start = std::chrono::steady_clock::now();
    const auto made = loop.create_timer();
    const auto never = loop.create_timer();
    never->set_timeout(std::chrono::seconds::max());
    made->set_handler([&loop] { loop.stop(); });
    made->set_timeout(1s);
    loop.run();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
}

TEST(EpollLoop, ATimerArmedBeforeAnEarlierOneWasStoppedStillFires) {
    // Stopping leaves the descriptor of the timers set too early: the loop must set it anew.
    epoll_loop loop;
    const auto early = loop.create_timer();
    const auto late = loop.create_timer();
    early->set_handler([] { ADD_FAILURE() << "a stopped timer fired"; });
    late->set_handler([&loop] { loop.stop(); });
    early->set_timeout(1s);
    late->set_timeout(2s);
    early->stop();
    loop.run();
}

} // namespace
