/// The library's own loop under threads: posting, stopping and starting at the same time.
#include "tarn/uloop.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using tarn::uloop;

constexpr int posters = 3;

TEST(UloopThreads, ConcurrentFirstUsesSeeOneInstance) {
    std::vector<std::future<uloop*>> seen;
    for (int i = 0; i < 4; ++i) {
        seen.push_back(std::async(std::launch::async, [] { return &uloop::get_instance(); }));
    }
    for (auto& instance : seen) {
        EXPECT_EQ(instance.get(), &uloop::get_instance());
    }
}

TEST(UloopThreads, APostWakesALoopThatWaits) {
    uloop& loop = uloop::get_instance();
    std::thread runner([&loop] { loop.run(); });
    for (int i = 0; i < 100; ++i) {
        std::promise<std::thread::id> ran;
        loop.post([&ran] { ran.set_value(std::this_thread::get_id()); });
        EXPECT_EQ(ran.get_future().get(), runner.get_id());
    }
    loop.exit();
    runner.join();
}

TEST(UloopThreads, ExitFromAnotherThreadStopsTheLoop) {
    uloop& loop = uloop::get_instance();
    for (int round = 0; round < 50; ++round) {
        std::promise<void> started;
        loop.post([&started] { started.set_value(); });
        std::thread runner([&loop] { loop.run(); });
        started.get_future().wait();
        loop.exit();
        runner.join();
    }
}

TEST(UloopThreads, ASecondRunOnAnotherThreadFails) {
    uloop& loop = uloop::get_instance();
    std::promise<void> started;
    loop.post([&started] { started.set_value(); });
    std::thread runner([&loop] { EXPECT_NO_THROW(loop.run()); });
    started.get_future().wait();
    for (int i = 0; i < 100; ++i) {
        EXPECT_THROW(loop.run(), std::runtime_error);
    }
    loop.exit();
    runner.join();
}

TEST(UloopThreads, EveryThreadsTasksRunOnceAndInItsOrder) {
    constexpr int tasks = 2000;
    uloop& loop = uloop::get_instance();
    std::vector<std::vector<int>> seen(posters);
    int finished = 0; // touched by the loop's thread only
    std::vector<std::thread> threads;
    for (int p = 0; p < posters; ++p) {
        threads.emplace_back([&, p] {
            auto& mine = seen[static_cast<std::size_t>(p)];
            for (int i = 0; i < tasks; ++i) {
                loop.post([&mine, i] { mine.push_back(i); });
            }
            loop.post([&] {
                if (++finished == posters) {
                    loop.exit();
                }
            });
        });
    }
    loop.run();
    for (auto& t : threads) {
        t.join();
    }
    for (const auto& numbers : seen) {
        ASSERT_EQ(numbers.size(), static_cast<std::size_t>(tasks));
        for (int i = 0; i < tasks; ++i) {
            ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
        }
    }
}

TEST(UloopThreads, PostingWhileTheLoopStartsAndStopsLosesAndLeaksNothing) {
    constexpr int rounds = 100;
    uloop& loop = uloop::get_instance();
    const auto token = std::make_shared<int>(0); // one reference for each task that still exists
    std::atomic<bool> stop{false};
    std::atomic<long> ran{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < posters; ++p) {
        threads.emplace_back([&] {
            while (!stop) {
                std::promise<void> gone;
                auto waiting = gone.get_future();
                struct tells_when_gone {
                    std::promise<void> gone;
                    ~tells_when_gone() { gone.set_value(); }
                };
                auto capture = std::make_shared<tells_when_gone>();
                waiting = capture->gone.get_future();
                loop.post([token, &ran, kept = std::move(capture)] { ++ran; });
                waiting.wait(); // it ran or was dropped; either way it must not linger
            }
        });
    }
    for (int round = 0; round < rounds; ++round) {
        const long before = ran;
        std::thread runner([&loop] { loop.run(); });
        while (ran == before) {
            std::this_thread::yield();
        }
        loop.exit();
        runner.join();
    }
    stop = true;
    // What was posted between the last round and `stop` waits for one more run.
    std::thread runner([&loop] { loop.run(); });
    for (auto& t : threads) {
        t.join();
    }
    std::promise<void> emptied;
    loop.post([&emptied] { emptied.set_value(); });
    emptied.get_future().wait();
    loop.exit();
    runner.join();
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_GE(ran, rounds);
}

TEST(UloopThreads, ExitAtAnyMomentOfTheStartEndsRun) {
    uloop& loop = uloop::get_instance();
    for (int round = 0; round < 300; ++round) {
        std::atomic<bool> ended{false};
        loop.post([] {});
        std::thread runner([&] {
            loop.run();
            ended = true;
        });
        while (!ended) { // an exit() before the start has no effect
            loop.exit();
            std::this_thread::yield();
        }
        runner.join();
    }
}

TEST(UloopThreads, FailingTasksAmongManyPostersEndOneRunEach) {
    uloop& loop = uloop::get_instance();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int p = 0; p < posters; ++p) {
        threads.emplace_back([&] {
            while (!stop) {
                loop.post([] { throw std::out_of_range("x"); });
                std::this_thread::yield();
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        EXPECT_THROW(loop.run(), std::out_of_range);
    }
    stop = true;
    for (auto& t : threads) {
        t.join();
    }
}

} // namespace
