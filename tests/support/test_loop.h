/// The loop that the client's test suites are written to: tasks run when the test says so, time
/// stands until it is moved on. Driven by hand, or on top of a loop of another library.
#pragma once

#include "tarn/event_loop.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace tarn::test {

/// Everything but post(), create_timer() and the timers' functions belongs to the one thread that
/// plays the loop's thread; wait_for_task() and the counts may be called from any.
class test_loop : public utils::event_loop {
public:
    /// Runs the task that has waited longest, and perhaps others behind it. False when there is
    /// none.
    virtual bool run_one() = 0;

    /// Runs tasks until none waits, those posted meanwhile included. Returns how many were run.
    virtual std::size_t drain() = 0;

    /// Blocks until a task waits (true) or `limit` has passed (false). Runs nothing.
    virtual bool wait_for_task(std::chrono::milliseconds limit) = 0;

    /// Runs tasks as they come until `done()` is true, which is asked between them, or `limit` has
    /// passed. Returns what `done()` said last. Timers stand still.
    virtual bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) = 0;

    /// Moves the clock on, firing on the way every timer that comes due, each at its own time, also
    /// those armed by handlers; a delay of zero or less armed by a handler waits for the next
    /// advance(). `advance(0s)` fires what is due already. Returns how many fired.
    virtual std::size_t advance(std::chrono::seconds by) = 0;

    /// The remaining time of every armed timer, the earliest first.
    virtual std::vector<std::chrono::seconds> armed_timers() const = 0;

    /// Calls of post() so far.
    virtual std::size_t post_count() const = 0;
    /// Calls of create_timer() so far.
    virtual std::size_t timers_made() const = 0;
    /// Timers that somebody still owns.
    virtual std::size_t timers_alive() const = 0;
};

/// The loop of this test program: a hand_loop, unless the program is linked with another maker.
std::shared_ptr<test_loop> make_test_loop();

} // namespace tarn::test
