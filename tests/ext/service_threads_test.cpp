/// Services that come and go on several threads while calls come in and connections end.
#include "tarn/ext/service.h"

#include "robustness/loop_thread.h"
#include "support/bus_daemon.h"
#include "tarn/error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarn::test {
namespace {

using error::msg;
using ext::responder;
using ext::service;
using std::chrono::seconds;

/// Counts calls under way, so that a thread can wait for the last of them.
class under_way {
public:
    void begin() {
        const std::lock_guard<std::mutex> guard(lock_);
        ++count_;
    }
    void end() {
        const std::lock_guard<std::mutex> guard(lock_);
        if (--count_ == 0) {
            none_.notify_all();
        }
    }
    bool wait() {
        std::unique_lock<std::mutex> guard(lock_);
        return none_.wait_for(guard, patience, [this] { return count_ == 0; });
    }

private:
    std::mutex lock_;
    std::condition_variable none_;
    int count_ = 0;
};

class ServiceThreads : public ::testing::Test {
protected:
    ServiceThreads() { bus_client(); }

    /// Calls the method "add" of `name` and counts what becomes of it.
    void call(const std::string& name, int n, seconds limit) {
        calls_.begin();
        bus_client().invoke(
            name, "add", {{"a", n}, {"b", 1}},
            [this, n](const std::list<blob::attr>& replies, const std::error_code& code) {
                if (!code) {
                    const auto& fields = replies.front().get<blob::table>();
                    EXPECT_EQ(ext::from_attr<int>(fields.find("result")->second), n + 1);
                    ++answered_;
                }
                calls_.end();
            },
            limit);
    }

    const bus_daemon daemon_;
    under_way calls_;
    std::atomic<int> answered_{0};
};

TEST_F(ServiceThreads, ServicesComeAndGoOnThreadsWhileTheyAreCalled) {
    const loop_thread loop;
    ASSERT_FALSE(loop_thread::connect());
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([this, number] {
            const std::string name = "served" + std::to_string(number);
            for (int round = 0; round < 60; ++round) {
                // What the function refers to may go only when no call can be running any more:
                // it is shared with it.
                const auto offset = std::make_shared<int>(0);
                service served(bus_client(), name);
                served.method("add", {"a", "b"},
                              [offset](int a, int b) { return a + b + *offset; });
                loop_thread::wait([&served](const std::function<void()>& done) {
                    served.on_published([done](const std::error_code& code) {
                        EXPECT_FALSE(code) << code.message();
                        done();
                    });
                    served.publish();
                });
                // An answer that comes when the object has gone is lost: such a call ends by its
                // limit.
                for (int n = 0; n < 10; ++n) {
                    call(name, n, seconds(2));
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(calls_.wait()) << "every call ends";
    bus_client().cancel();
}

TEST_F(ServiceThreads, ItIsThereAgainAfterConnectionsEndedByOtherThreads) {
    const loop_thread loop;
    std::atomic<int> published{0};
    service served(bus_client(), "served");
    served.method("add", {"a", "b"}, [](int a, int b) { return a + b; })
        .on_published([&published](const std::error_code& code) {
            if (!code) {
                ++published;
            }
        })
        .publish();
    std::thread breaking([] {
        for (int round = 0; round < 40; ++round) {
            EXPECT_FALSE(loop_thread::connect());
            round % 2 == 0 ? bus_client().cancel() : loop_thread::disconnect();
        }
    });
    std::thread calling([this] {
        for (int n = 0; n < 400; ++n) {
            call("served", n, seconds(2));
        }
    });
    breaking.join();
    calling.join();
    EXPECT_TRUE(calls_.wait());
    const int before = published;
    ASSERT_FALSE(loop_thread::connect());
    while (published == before) {
        std::this_thread::yield();
    }
    const int answered = answered_;
    call("served", 1, seconds(30));
    EXPECT_TRUE(calls_.wait());
    EXPECT_EQ(answered_, answered + 1);
    bus_client().cancel();
}

TEST_F(ServiceThreads, WorkersAnswerWhileTheServiceGoes) {
    const loop_thread loop;
    for (int round = 0; round < 30; ++round) {
        ASSERT_FALSE(loop_thread::connect());
        std::mutex lock;
        std::vector<responder<int>> waiting;
        auto served = std::make_unique<service>(bus_client(), "served");
        served->method("add", {"a", "b"}, [&](int, int, const responder<int>& caller) {
            const std::lock_guard<std::mutex> guard(lock);
            waiting.push_back(caller);
        });
        loop_thread::wait([&](const std::function<void()>& done) {
            served->on_published([done](const std::error_code&) { done(); }).publish();
        });
        for (int n = 0; n < 20; ++n) {
            calls_.begin();
            bus_client().invoke(
                "served", "add", {{"a", n}, {"b", 1}},
                [this](const std::list<blob::attr>&, const std::error_code& code) {
                    EXPECT_TRUE(!code || code == msg::not_found || code == msg::unknown_error ||
                                code == msg::no_response || code == msg::timeout ||
                                code == error::generic::aborted)
                        << code.message();
                    calls_.end();
                },
                seconds(30));
        }
        const auto arrived = [&] {
            const std::lock_guard<std::mutex> guard(lock);
            return waiting.size() == 20;
        };
        while (!arrived()) {
            std::this_thread::yield();
        }
        const std::vector<responder<int>> callers = waiting;
        std::thread one([&] {
            for (const auto& caller : callers) {
                caller.answer(1);
            }
        });
        std::thread other([&] {
            for (const auto& caller : callers) {
                caller.answer(msg::not_found);
            }
        });
        std::thread ending([&] { loop_thread::run([&] { served.reset(); }); });
        one.join();
        other.join();
        ending.join();
        bus_client().cancel();
        EXPECT_TRUE(calls_.wait());
    }
}

} // namespace
} // namespace tarn::test
