/// How the process's single client is obtained, and what it refuses.
#include "tarn/bus.h"
#include "tarn/client.h"

#include "support/expect_throw.h"
#include "support/hand_loop.h"
#include "support/on_loop_thread.h"
#include "tarn/uloop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarn::test {
namespace {

constexpr auto no_loop = "tarn_impl::client: No event loop";
constexpr auto missing_loop = "tarn_impl::client: Missing/expired event loop";
constexpr auto other_loop = "tarn_impl::client: Instance of event loop can't be changed";

std::shared_ptr<hand_loop> keep(const std::shared_ptr<hand_loop>& loop) {
    static std::shared_ptr<hand_loop> kept;
    kept = loop;
    return kept;
}

TEST(Instance, AFirstCallWithAnEmptyLoopThrowsNoEventLoop) {
    expect_throw_msg<std::runtime_error>([&] { client::get_instance({}); }, no_loop);
}

TEST(Instance, AFirstCallWithAnExpiredLoopThrowsNoEventLoop) {
    const std::weak_ptr<utils::event_loop> expired = std::make_shared<hand_loop>();
    expect_throw_msg<std::runtime_error>([&] { client::get_instance(expired); }, no_loop);
}

/// Ends the reference that the client was given to it, while it makes the client's timer.
class short_lived_loop : public utils::event_loop {
public:
    explicit short_lived_loop(std::weak_ptr<utils::event_loop>& watched)
        : watched_(watched) {}
    void post(const std::function<void()>&) override {}
    std::shared_ptr<timer> create_timer() override {
        watched_.reset(); // what get_instance() was given names no loop from now on
        return std::make_shared<hand_loop>()->create_timer();
    }

private:
    std::weak_ptr<utils::event_loop>& watched_;
};

TEST(Instance, ALoopThatDiesWhileItMakesTheTimerIsReportedAsMissing) {
    std::weak_ptr<utils::event_loop> watched;
    const auto loop = std::make_shared<short_lived_loop>(watched);
    watched = loop;
    expect_throw_msg<std::runtime_error>([&] { client::get_instance(watched); }, missing_loop);
}

TEST(Instance, AFailedFirstCallLeavesTheNextOneToTryAgain) {
    expect_throw_msg<std::runtime_error>([&] { client::get_instance({}); }, no_loop);
    const auto loop = keep(std::make_shared<hand_loop>());
    EXPECT_EQ(client::get_instance(loop).get_state(), client::state::disconnected);
}

TEST(Instance, LaterCallsWithTheSameOrNoLoopReturnTheSameClient) {
    const auto loop = keep(std::make_shared<hand_loop>());
    client& first = client::get_instance(loop);
    EXPECT_EQ(&client::get_instance(loop), &first);
    EXPECT_EQ(&client::get_instance({}), &first);
    const std::weak_ptr<utils::event_loop> expired = std::make_shared<hand_loop>();
    EXPECT_EQ(&client::get_instance(expired), &first);
}

TEST(Instance, GivesTheLoopThatItWasMadeWith) {
    const auto loop = keep(std::make_shared<hand_loop>());
    const client& made = client::get_instance(loop);
    EXPECT_EQ(made.get_event_loop().lock(), loop);
    client::get_instance({});
    EXPECT_EQ(made.get_event_loop().lock(), loop) << "also after a later call without one";
}

TEST(Instance, AnotherLiveLoopIsRefused) {
    client& first = client::get_instance(keep(std::make_shared<hand_loop>()));
    const auto other = std::make_shared<hand_loop>();
    expect_throw_msg<std::runtime_error>([&] { client::get_instance(other); }, other_loop);
    EXPECT_EQ(&client::get_instance({}), &first);
}

/// Runs the library's loop on a thread of the test's own, as an application may that knows of it.
class own_run {
public:
    own_run()
        : thread_([this] {
            uloop::get_instance().run();
            ended_.set_value();
        }) {
        std::promise<void> runs;
        uloop::get_instance().post([&runs] { runs.set_value(); });
        runs.get_future().wait();
    }
    ~own_run() { thread_.join(); }
    own_run(const own_run&) = delete;
    own_run& operator=(const own_run&) = delete;

    bool has_ended() {
        return ended_.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    }

private:
    std::promise<void> ended_;
    std::thread thread_;
};

/// Whether the private thread does what it is asked, and signals are as they were.
void expect_a_working_client(client& bus, hand_loop& loop) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
    bool told = false;
    bus.invoke(
        "nobody", "ping", {},
        [&told](const std::list<blob::attr>&, const std::error_code&) { told = true; },
        std::chrono::seconds(0));
    EXPECT_TRUE(loop.run_until([&told] { return told; }, std::chrono::seconds(20)));
}

TEST(Instance, StopsARunOfTheLoopThatIsTheApplications) {
    const auto loop = keep(std::make_shared<hand_loop>());
    own_run run;
    client& bus = client::get_instance(loop);
    EXPECT_TRUE(run.has_ended());
    expect_a_working_client(bus, *loop);
}

TEST(Instance, IsMadeInsideATaskOfTheLoopToo) {
    const auto loop = keep(std::make_shared<hand_loop>());
    own_run run;
    std::promise<client*> made;
    uloop::get_instance().post([&] { made.set_value(&client::get_instance(loop)); });
    client& bus = *made.get_future().get();
    EXPECT_TRUE(run.has_ended());
    expect_a_working_client(bus, *loop);
}

TEST(Instance, WhatIsAskedForBeforeThePrivateThreadRunsIsDoneWhenItDoes) {
    const auto loop = keep(std::make_shared<hand_loop>());
    own_run run;
    bool told = false;
    std::promise<void> asked;
    uloop::get_instance().post([&] {
        client::get_instance(loop).invoke(
            "nobody", "ping", {},
            [&told](const std::list<blob::attr>&, const std::error_code&) { told = true; },
            std::chrono::seconds(0));
        asked.set_value();
    });
    asked.get_future().wait();
    EXPECT_TRUE(run.has_ended());
    EXPECT_TRUE(loop->run_until([&told] { return told; }, std::chrono::seconds(20)));
}

TEST(Instance, StartsDisconnectedAndInactive) {
    client& bus = client::get_instance(keep(std::make_shared<hand_loop>()));
    EXPECT_EQ(bus.get_state(), client::state::disconnected);
    EXPECT_FALSE(bus.is_active());
}

/// A loop whose timers note what is asked of them.
class noting_loop final : public utils::event_loop {
public:
    void post(const std::function<void()>& task) override { tasks_.post(task); }
    std::shared_ptr<timer> create_timer() override {
        return std::make_shared<noting_timer>(noted, tasks_.create_timer());
    }
    std::vector<std::string> noted;

private:
    class noting_timer final : public timer {
    public:
        noting_timer(std::vector<std::string>& noted, std::shared_ptr<timer> inner)
            : noted_(noted)
            , inner_(std::move(inner)) {}
        void set_handler(std::function<void()> action) override {
            noted_.emplace_back("handler");
            inner_->set_handler(std::move(action));
        }
        void set_timeout(const std::chrono::seconds& delay) override {
            noted_.push_back("timeout of " + std::to_string(delay.count()));
            inner_->set_timeout(delay);
        }
        void stop() override { inner_->stop(); }

    private:
        std::vector<std::string>& noted_;
        const std::shared_ptr<timer> inner_;
    };

    hand_loop tasks_;
};

TEST(Instance, ATimeLimitIsSetBeforeTheTimersHandler) {
    static const auto loop = std::make_shared<noting_loop>();
    client& bus = client::get_instance(loop);
    loop->noted.clear();
    bus.invoke("demo", "echo", {}, {}, std::chrono::seconds(7)).release();
    EXPECT_EQ(loop->noted, (std::vector<std::string>{"timeout of 7", "handler"}));
}

/// The signals that the calling thread has blocked.
std::set<int> blocked_signals() {
    sigset_t mask;
    sigemptyset(&mask);
    EXPECT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
    std::set<int> blocked;
    for (int signo = 1; signo <= SIGRTMAX; ++signo) {
        if (sigismember(&mask, signo) == 1) {
            blocked.insert(signo);
        }
    }
    return blocked;
}

TEST(Instance, TheLoopThreadBlocksEverySignalButTheFaultsOfItsOwnCode) {
    client::get_instance(keep(std::make_shared<hand_loop>()));
    EXPECT_EQ(blocked_signals(), std::set<int>()) << "the caller's mask is as it was";
    std::set<int> blocked;
    on_loop_thread([&] { blocked = blocked_signals(); });
    for (int signo = 1; signo < 32; ++signo) {
        const bool fault = signo == SIGSEGV || signo == SIGBUS || signo == SIGFPE ||
                           signo == SIGILL || signo == SIGTRAP || signo == SIGABRT;
        const bool cannot_be_blocked = signo == SIGKILL || signo == SIGSTOP;
        EXPECT_EQ(blocked.count(signo) == 1, !fault && !cannot_be_blocked) << "signal " << signo;
    }
}

TEST(Instance, ManyThreadsGetTheSameClientAtOnce) {
    const auto loop = keep(std::make_shared<hand_loop>());
    std::vector<client*> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen) {
        threads.emplace_back([&slot, &loop] { slot = &client::get_instance(loop); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const client* one : seen) {
        EXPECT_EQ(one, seen.front());
    }
}

TEST(Instance, TheStateSubscriptionsAreSafeFromManyThreadsAtOnce) {
    client& bus = client::get_instance(keep(std::make_shared<hand_loop>()));
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&bus] {
            for (int round = 0; round < 500; ++round) {
                auto link = bus.notify_on_state_change([](client::state) {});
                EXPECT_TRUE(link.active());
                link.release();
                EXPECT_FALSE(link.active());
                EXPECT_FALSE(bus.is_active());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(Instance, TasksThatAThreadPostsToTheLoopThreadRunBetweenTheClients) {
    constexpr int rounds = 2000;
    client& bus = client::get_instance(keep(std::make_shared<hand_loop>()));
    std::atomic<int> ran{0};
    std::thread poster([&ran] {
        for (int round = 0; round < rounds; ++round) {
            uloop::get_instance().post([&ran] { ++ran; });
        }
    });
    for (int round = 0; round < rounds; ++round) {
        auto link = bus.get_bus().wait_for({"object"}, std::chrono::seconds::zero(), {});
        link.release();
    }
    poster.join();
    on_loop_thread([] {});
    EXPECT_EQ(ran, rounds);
}

} // namespace
} // namespace tarn::test
