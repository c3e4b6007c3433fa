/// What all cases of the event loop conformance suite share: the driver of a loop and its helpers.
#pragma once

#include "tarn/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tarn::loops::conformance {

/// How long a case waits for something that must happen before it fails.
constexpr std::chrono::seconds patience(20);

/// Calls a function when it is destroyed: put into a task or a handler, it shows when
/// that is destroyed.
class at_end {
public:
    /// `action` is called once, by the destructor.
    explicit at_end(std::function<void()> action)
        : action_(std::move(action)) {}
    ~at_end() { action_(); }
    at_end(const at_end&) = delete;
    at_end& operator=(const at_end&) = delete;

private:
    const std::function<void()> action_;
};

/// Takes and gives back `lock`. False when that cannot be had in time. (Timed mutexes would do, but
/// the thread sanitizers of today do not know them.)
inline bool passes(std::mutex& lock) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!lock.try_lock()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::yield();
    }
    lock.unlock();
    return true;
}

/// Threads that begin together and are joined with the crew.
class crew {
public:
    crew()
        : gate_(start_.get_future().share()) {}

    ~crew() {
        if (!started_) {
            start();
        }
        for (std::thread& member : members_) {
            member.join();
        }
    }

    crew(const crew&) = delete;
    crew& operator=(const crew&) = delete;

    /// Adds a thread, which does its work after start().
    void add(std::function<void()> work) {
        members_.emplace_back([this, gate = gate_, work = std::move(work)] {
            gate.wait();
            work();
            ++finished_;
        });
    }

    /// Lets all threads begin their work. To be called once.
    void start() {
        started_ = true;
        start_.set_value();
    }

    /// Whether all threads have done their work.
    bool finished() const { return finished_ == members_.size(); }

private:
    std::promise<void> start_;
    std::shared_future<void> gate_;
    std::vector<std::thread> members_;
    std::atomic<std::size_t> finished_{0};
    bool started_ = false;
};

/// The base of all cases. `Driver` makes one loop and runs it on request:
///
///     struct my_driver {
///         my_driver();                          // makes the loop, idle
///         tarn::utils::event_loop& loop();      // the loop
///         void drop_loop();                     // destroys it; it is not run any more
///         std::chrono::nanoseconds now();       // the clock of its timers, any origin
///         bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit);
///     };
///
/// run_until() runs the loop until `done()` is true or `limit` (real time) has passed, and returns
/// what `done()` said last. It asks `done()` on the thread that runs the loop, between two
/// handlers, again and again, also while nothing happens. Outside run_until() the loop runs
/// nothing. A loop with a clock of its own moves it on while there is nothing else to do.
template <class Driver>
class fixture : public ::testing::Test {
protected:
    /// A timer of the loop, and its owner.
    using timer_ptr = std::shared_ptr<utils::event_loop::timer>;

    /// The loop under test.
    utils::event_loop& loop() { return driver_.loop(); }
    /// The driver of the case, made anew for each.
    Driver& driver() { return driver_; }

    /// Runs the loop until `done()`. False, and a failure of the case, when that does not come.
    bool until(const std::function<bool()>& done) {
        const bool reached = driver_.run_until(done, patience);
        EXPECT_TRUE(reached) << "the loop did not get there in time";
        return reached;
    }

    /// Runs the loop until all that was due before the call has had its chance.
    void settle() {
        for (int round = 0; round < 3; ++round) {
            const auto steps = std::make_shared<int>(0);
            const timer_ptr witness = armed(std::chrono::seconds(0), [steps] { ++*steps; });
            loop().post([steps] { ++*steps; });
            until([steps] { return *steps == 2; });
        }
    }

    /// Lets `delay` and a little more pass on the loop's clock.
    void pass(std::chrono::seconds delay) {
        const auto over = std::make_shared<bool>(false);
        const timer_ptr witness = armed(delay, [over] { *over = true; });
        until([over] { return *over; });
        settle();
    }

    /// A timer with a handler, armed.
    timer_ptr armed(std::chrono::seconds delay, std::function<void()> action) {
        timer_ptr made = loop().create_timer();
        made->set_handler(std::move(action));
        made->set_timeout(delay);
        return made;
    }

    /// Checks that the loop holds no lock here: another thread, which no recursive lock lets
    /// through, must get in. Returns whether it did.
    bool expect_unlocked() {
        const auto entered = std::make_shared<std::promise<void>>();
        const auto result = entered->get_future();
        intruders_.emplace_back([this, entered] {
            loop().post([] {});
            loop().create_timer();
            entered->set_value();
        });
        const bool unlocked = result.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        EXPECT_TRUE(unlocked)
            << "the loop holds a lock while it runs or destroys what it was given";
        return unlocked;
    }

    ~fixture() override {
        for (std::thread& intruder : intruders_) {
            intruder.join();
        }
    }

private:
    Driver driver_;
    std::vector<std::thread> intruders_;
};

} // namespace tarn::loops::conformance
