/// Conformance cases: the timers of an event loop, used from other threads while it runs.
#pragma once

#include "tarn/loops/conformance/fixture.h"

#include <array>
#include <mutex>
#include <vector>

namespace tarn::loops::conformance {

/// Timers used by several threads at once while they expire.
template <class Driver>
class EventLoopThreads : public fixture<Driver> {
protected:
    /// Runs `work` on another thread and waits for its end; only so long, in case it is blocked by
    /// the thread that waits.
    bool elsewhere(std::function<void()> work) {
        const auto done = std::make_shared<std::promise<void>>();
        const auto result = done->get_future();
        others_.emplace_back([done, work = std::move(work)] {
            work();
            done->set_value();
        });
        const bool returned = result.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        EXPECT_TRUE(returned) << "an operation of a timer waits for the loop's thread";
        return returned;
    }

    ~EventLoopThreads() override {
        for (std::thread& other : others_) {
            other.join();
        }
    }

private:
    std::vector<std::thread> others_;
};

TYPED_TEST_SUITE_P(EventLoopThreads);

TYPED_TEST_P(EventLoopThreads, MayMakeArmStopAndReleaseTimersWhileTheyExpire) {
    constexpr int rounds = 300;
    constexpr std::size_t threads = 6;
    struct fate {
        std::shared_ptr<utils::event_loop::timer> timer;
        std::shared_ptr<std::atomic<int>> fired;
    };
    std::array<std::vector<fate>, threads> kept;
    std::array<std::vector<fate>, threads> ended;
    {
        crew users;
        for (std::size_t number = 0; number < threads; ++number) {
            users.add([this, &kept, &ended, number] {
                for (int round = 0; round < rounds; ++round) {
                    const auto fired = std::make_shared<std::atomic<int>>(0);
                    auto made = this->loop().create_timer();
                    made->set_timeout(std::chrono::seconds(0));
                    made->set_handler([fired] { ++*fired; });
                    switch (round % 4) {
                    case 0:
                        kept[number].push_back({std::move(made), fired});
                        break;
                    case 1:
                        made->stop();
                        ended[number].push_back({std::move(made), fired});
                        break;
                    case 2:
                        made->set_timeout(std::chrono::seconds::max());
                        ended[number].push_back({std::move(made), fired});
                        break;
                    default:
                        made.reset();
                        ended[number].push_back({nullptr, fired});
                        break;
                    }
                }
            });
        }
        users.start();
        this->until([&users] { return users.finished(); });
    }
    std::vector<int> before;
    for (const auto& one : ended) {
        for (const fate& each : one) {
            before.push_back(*each.fired);
            EXPECT_LE(before.back(), 1);
        }
    }
    this->settle();
    std::vector<int> after;
    for (const auto& one : ended) {
        for (const fate& each : one) {
            after.push_back(*each.fired);
        }
    }
    EXPECT_EQ(before, after) << "a timer fired after it had been stopped, put off or released";
    for (const auto& one : kept) {
        for (const fate& each : one) {
            EXPECT_EQ(*each.fired, 1);
        }
    }
}

TYPED_TEST_P(EventLoopThreads, MayUseOneTimerAllAtOnceWhileItExpires) {
    constexpr int rounds = 500;
    const auto shared = this->loop().create_timer();
    const auto runs = std::make_shared<std::atomic<int>>(0);
    {
        crew users;
        users.add([shared] {
            for (int round = 0; round < rounds; ++round) {
                shared->set_timeout(std::chrono::seconds(0));
            }
        });
        users.add([shared] {
            for (int round = 0; round < rounds; ++round) {
                shared->set_timeout(std::chrono::seconds(round % 3));
                shared->stop();
            }
        });
        users.add([shared, runs] {
            for (int round = 0; round < rounds; ++round) {
                shared->set_handler([runs] { ++*runs; });
            }
        });
        users.start();
        this->until([&users] { return users.finished(); });
    }
    shared->stop();
    this->settle();
    EXPECT_LE(*runs, 2 * rounds);
    // And it still works.
    bool fired = false;
    shared->set_handler([&fired] { fired = true; });
    shared->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired; });
}

TYPED_TEST_P(EventLoopThreads, MayCreateTimersAtTheSameTime) {
    std::array<std::vector<std::shared_ptr<utils::event_loop::timer>>, 4> made;
    crew makers;
    for (auto& own : made) {
        makers.add([this, &own] {
            for (int count = 0; count < 500; ++count) {
                own.push_back(this->loop().create_timer());
            }
        });
    }
    makers.start();
    this->until([&makers] { return makers.finished(); });
    for (const auto& own : made) {
        for (const auto& each : own) {
            EXPECT_NE(each, nullptr);
        }
    }
}

TYPED_TEST_P(EventLoopThreads, ThatArmATimerWakeTheLoop) {
    std::atomic<bool> fired{false};
    const auto made = this->armed(std::chrono::seconds::max(), [&fired] { fired = true; });
    crew users;
    users.add([&made] { made->set_timeout(std::chrono::seconds(0)); });
    this->loop().post([&users] { users.start(); });
    this->until([&fired] { return fired.load(); });
}

TYPED_TEST_P(EventLoopThreads, ThatGiveAnExpiredTimerItsHandlerWakeTheLoop) {
    std::atomic<bool> fired{false};
    const auto made = this->loop().create_timer();
    made->set_timeout(std::chrono::seconds(0));
    this->settle();
    crew users;
    users.add([&made, &fired] { made->set_handler([&fired] { fired = true; }); });
    this->loop().post([&users] { users.start(); });
    this->until([&fired] { return fired.load(); });
}

TYPED_TEST_P(EventLoopThreads, ThatStopADueTimerWhileATaskRunsKeepItFromFiring) {
    bool fired = false;
    bool stopped = false;
    const auto made = this->loop().create_timer();
    made->set_handler([&fired] { fired = true; });
    this->loop().post([&, this] {
        made->set_timeout(std::chrono::seconds(0));
        stopped = this->elsewhere([&made] { made->stop(); });
    });
    this->until([&stopped] { return stopped; });
    this->settle();
    EXPECT_FALSE(fired);
}

TYPED_TEST_P(EventLoopThreads, ThatReleaseADueTimerWhileATaskRunsKeepItFromFiring) {
    bool fired = false;
    bool released = false;
    auto made = this->loop().create_timer();
    made->set_handler([&fired] { fired = true; });
    this->loop().post([&, this] {
        made->set_timeout(std::chrono::seconds(0));
        released = this->elsewhere([&made] { made.reset(); });
    });
    this->until([&released] { return released; });
    this->settle();
    EXPECT_FALSE(fired);
}

TYPED_TEST_P(EventLoopThreads, MayStopAndArmATimerWhileItsHandlerRuns) {
    int fired = 0;
    const auto made = this->loop().create_timer();
    made->set_handler([&, this] {
        if (++fired == 1) {
            this->elsewhere([&made] {
                made->stop();
                made->set_timeout(std::chrono::seconds(0));
            });
        }
    });
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired == 2; });
    this->settle();
    EXPECT_EQ(fired, 2);
}

TYPED_TEST_P(EventLoopThreads, MayReplaceAHandlerWhileItRuns) {
    std::vector<int> order;
    const auto made = this->loop().create_timer();
    const auto held = std::make_shared<int>(1);
    made->set_handler([&, this, held] {
        this->elsewhere([&made, &order] {
            made->set_handler([&order] { order.push_back(2); });
            made->set_timeout(std::chrono::seconds(0));
        });
        order.push_back(*held);
    });
    made->set_timeout(std::chrono::seconds(0));
    this->until([&order] { return order.size() == 2; });
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TYPED_TEST_P(EventLoopThreads, MayReleaseATimerWhileItsHandlerRuns) {
    int fired = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    auto made = this->loop().create_timer();
    made->set_handler([&, this, held] {
        this->elsewhere([&made] {
            made->set_timeout(std::chrono::seconds(0));
            made.reset();
        });
        fired = ++*held;
    });
    held.reset();
    made->set_timeout(std::chrono::seconds(0));
    this->until([&fired] { return fired > 0; });
    this->settle();
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(watch.expired());
}

TYPED_TEST_P(EventLoopThreads, MayUseTimersWithALockHeldThatTheHandlersTake) {
    constexpr int rounds = 200;
    const auto library = std::make_shared<std::mutex>();
    const auto handler = [library] {
        EXPECT_TRUE(passes(*library)) << "an operation of a timer waits for a handler";
    };
    crew users;
    for (int number = 0; number < 2; ++number) {
        users.add([this, library, handler] {
            for (int round = 0; round < rounds; ++round) {
                const std::lock_guard<std::mutex> lock(*library);
                auto made = this->loop().create_timer();
                made->set_timeout(std::chrono::seconds(0));
                made->set_handler(handler);
                made->stop();
                made->set_timeout(std::chrono::seconds(0));
                made.reset();
            }
        });
    }
    users.start();
    this->until([&users] { return users.finished(); });
}

REGISTER_TYPED_TEST_SUITE_P(EventLoopThreads, MayMakeArmStopAndReleaseTimersWhileTheyExpire,
                            MayUseOneTimerAllAtOnceWhileItExpires, MayCreateTimersAtTheSameTime,
                            ThatArmATimerWakeTheLoop, ThatGiveAnExpiredTimerItsHandlerWakeTheLoop,
                            ThatStopADueTimerWhileATaskRunsKeepItFromFiring,
                            ThatReleaseADueTimerWhileATaskRunsKeepItFromFiring,
                            MayStopAndArmATimerWhileItsHandlerRuns, MayReplaceAHandlerWhileItRuns,
                            MayReleaseATimerWhileItsHandlerRuns,
                            MayUseTimersWithALockHeldThatTheHandlersTake);

} // namespace tarn::loops::conformance
