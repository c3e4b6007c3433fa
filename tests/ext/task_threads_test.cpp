/// Tasks that other threads end while the loop runs them.
#include "tarn/ext/await.h"
#include "tarn/ext/task.h"

#include "robustness/loop_thread.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace tarn::test {
namespace {

using ext::spawn;
using ext::task;
using std::chrono::seconds;

struct counts {
    std::atomic<long> frames{0};
    std::atomic<long> steps{0};
};

/// Counts the frames that are alive.
class alive {
public:
    explicit alive(counts& all)
        : all_(all) {
        ++all_.frames;
    }
    ~alive() { --all_.frames; }
    alive(const alive&) = delete;
    alive& operator=(const alive&) = delete;

private:
    counts& all_;
};

task<> one_call(counts& all) {
    const alive here(all);
    const auto outcome = co_await ext::call<void>(bus_client(), "demo", "echo", {}, seconds(10));
    static_cast<void>(outcome); // another thread may have cancelled it
    ++all.steps;
}

task<> calling_on(counts& all) {
    const alive here(all);
    for (;;) {
        co_await one_call(all);
        co_await ext::sleep(bus_client(), seconds(0));
        ++all.steps;
    }
}

task<> connecting_on(counts& all) {
    const alive here(all);
    for (;;) {
        co_await ext::connected(bus_client());
        co_await ext::sleep(bus_client(), seconds(0));
        ++all.steps;
    }
}

class TaskThreads : public ::testing::Test {
protected:
    TaskThreads() {
        service_.wait_for_line("demo_service: ready");
        bus_client(); // before the loop runs on its own thread
    }

    /// Spawns tasks, lets them run, and has several threads end them all at once, together with
    /// `beside`.
    template <class Beside>
    void end_on_several_threads(int rounds, const Beside& beside) {
        const loop_thread loop;
        for (int round = 0; round < rounds; ++round) {
            ASSERT_FALSE(loop_thread::connect());
            std::vector<utils::link> links;
            const long reached = all_.steps + 20 + round % 17;
            for (int n = 0; n < 6; ++n) {
                links.push_back(spawn(bus_client(), calling_on(all_)));
                links.push_back(spawn(bus_client(), connecting_on(all_)));
            }
            while (all_.steps < reached) {
                std::this_thread::yield();
            }
            std::vector<std::thread> enders;
            for (int n = 0; n < 3; ++n) {
                enders.emplace_back([links]() mutable {
                    for (auto& link : links) {
                        link.release();
                        EXPECT_FALSE(link.active());
                    }
                });
            }
            enders.emplace_back(beside);
            for (auto& ender : enders) {
                ender.join();
            }
            // What was just running when its link was released goes on the loop.
            loop_thread::run([] {});
            ASSERT_EQ(all_.frames, 0);
        }
    }

    const bus_daemon daemon_;
    child_process service_{{TARN_TEST_SERVICE}};
    counts all_;
};

TEST_F(TaskThreads, EveryFrameIsDestroyedOnceHoweverManyThreadsEndIt) {
    end_on_several_threads(150, [] {});
}

TEST_F(TaskThreads, EndingTasksMeetsACancellation) {
    end_on_several_threads(100, [] { bus_client().cancel(); });
}

} // namespace
} // namespace tarn::test
