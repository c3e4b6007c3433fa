/// An event loop that a test drives by hand: tasks wait until the test runs them, and the clock
/// moves only when the test moves it.
#pragma once

#include "tarn/event_loop.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace tarn::testing {

/// For tests of code that takes a tarn::utils::event_loop, or a tarn::client that runs on one: a
/// time limit of an hour expires with advance(std::chrono::hours(1)), at once.
///
/// Thread: one thread, the test's, plays the loop's thread and makes all calls but these, which any
/// thread may make: post(), create_timer(), the functions of timers, wait_for_task() and the
/// counts. Timers may outlive the loop; their operations then do nothing. Errors: what tasks and
/// timer handlers throw passes through the call that ran them; the tasks behind them stay queued.
class manual_loop final : public utils::event_loop {
public:
    manual_loop();
    ~manual_loop() override;
    manual_loop(const manual_loop&) = delete;
    manual_loop& operator=(const manual_loop&) = delete;

    void post(const std::function<void()>& task) override;
    std::shared_ptr<timer> create_timer() override;

    /// Runs the task that has waited longest. False when there is none.
    bool run_one();

    /// Runs tasks until none waits, those posted meanwhile included. Returns how many were run.
    std::size_t drain();

    /// Blocks until a task waits (true) or `limit` has passed (false). Runs nothing.
    bool wait_for_task(std::chrono::milliseconds limit);

    /// Runs tasks as they come until `done()` is true, which is asked between tasks, or `limit` has
    /// passed. Returns what `done()` said last. Timers do not advance.
    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit);

    /// Moves the clock on, firing on the way every timer that comes due, each at its own time, also
    /// those armed by handlers; a delay of zero or less armed by a handler waits for the next
    /// advance(). Runs no tasks. `advance(0s)` fires what is due already. Returns how many fired.
    std::size_t advance(std::chrono::seconds by);

    /// The clock, zero at first.
    std::chrono::seconds now() const;

    /// The remaining time of every armed timer, the earliest first.
    std::vector<std::chrono::seconds> armed_timers() const;

    /// Tasks posted and not yet run.
    std::size_t waiting_tasks() const;
    /// Calls of post() so far.
    std::size_t post_count() const;
    /// Calls of create_timer() so far.
    std::size_t timers_made() const;
    /// Timers that somebody still owns.
    std::size_t timers_alive() const;

private:
    struct state;
    class manual_timer;

    // Shared with the timers, which may outlive the loop.
    std::shared_ptr<state> state_;
};

} // namespace tarn::testing
