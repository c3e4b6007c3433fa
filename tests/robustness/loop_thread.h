/// The application's loop, run by a thread of its own, for tests that leave it alone.
#pragma once

#include "tarn/client.h"
#include "tarn/loops/epoll_loop.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace tarn::test {

/// Reached only when a test fails.
constexpr std::chrono::seconds patience{60};

/// The process's loop. It outlives the client, which is made after it.
inline const std::shared_ptr<loops::epoll_loop>& application_loop() {
    static const auto instance = std::make_shared<loops::epoll_loop>();
    return instance;
}

inline client& bus_client() {
    return client::get_instance(application_loop());
}

/// Runs the loop on a thread for the life of the object.
class loop_thread {
public:
    loop_thread()
        : thread_([] { application_loop()->run(); }) {}
    ~loop_thread() {
        application_loop()->stop();
        thread_.join();
    }
    loop_thread(const loop_thread&) = delete;
    loop_thread& operator=(const loop_thread&) = delete;

    std::thread::id id() const { return thread_.get_id(); }

    /// Runs `task` on the loop and returns when it has run.
    static void run(const std::function<void()>& task) {
        wait([&](const std::function<void()>& done) {
            application_loop()->post([&task, done] {
                task();
                done();
            });
        });
    }

    /// Calls `start` with a function for it to have called, from anywhere, and returns once that
    /// has happened. Throws std::runtime_error when it does not happen.
    static void wait(const std::function<void(const std::function<void()>&)>& start) {
        const auto happened = std::make_shared<std::promise<void>>();
        auto event = happened->get_future();
        start([happened] { happened->set_value(); });
        if (event.wait_for(patience) != std::future_status::ready) {
            throw std::runtime_error("nothing happened within the limit");
        }
    }

    /// Connects, or says why not.
    static std::error_code connect() {
        std::error_code outcome;
        wait([&outcome](const std::function<void()>& done) {
            application_loop()->post([&outcome, done] {
                bus_client().connect([&outcome, done](const std::error_code& code) {
                    outcome = code;
                    done();
                });
            });
        });
        return outcome;
    }

    /// Disconnects and returns when the private thread has done all that was asked of it before.
    static void disconnect() {
        wait([](const std::function<void()>& done) {
            application_loop()->post(
                [done] { bus_client().disconnect([done](const std::error_code&) { done(); }); });
        });
    }

private:
    std::thread thread_;
};

} // namespace tarn::test
