/// A ready-made event loop for applications that have none: epoll, one eventfd and one timerfd.
#pragma once

#include "tarn/event_loop.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

/// Event loops ready to be passed to the client.
namespace tarn::loops {

namespace detail {
class loop_core;
}

/// An event loop over epoll. Run it with run() on a thread of your choice, or nest it into a loop
/// of your own: watch fd() for reading there and call dispatch() whenever it is readable.
///
/// A turn of the loop runs the tasks that were waiting when it began, in posting order, and then
/// the timers that were due when it began, earliest first. What is posted or armed meanwhile
/// belongs to the next turn, so neither tasks nor timers can keep the others from running.
///
/// All functions may be called from any thread; run() and dispatch() by one thread at a time. No
/// lock is held while a task, a handler or a destructor of either runs. Timers cost no descriptor
/// of their own and may outlive the loop; their operations are then no-ops. The loop keeps no
/// global state: a process may have any number of them. After fork() the child must not use one.
///
/// The loop must not be destroyed while a run() or dispatch() is under way. Tasks that are still
/// waiting are destroyed with it, unrun, on the destroying thread; what their destructors post to
/// it is dropped.
class epoll_loop final : public utils::event_loop {
public:
    /// Opens the three descriptors of the loop, all close-on-exec.
    ///
    /// Thread: any.
    /// Errors: throws std::system_error with the errno value when one cannot be had (EMFILE,
    /// ENFILE, ENOMEM).
    epoll_loop();
    ~epoll_loop() override;
    epoll_loop(const epoll_loop&) = delete;
    epoll_loop& operator=(const epoll_loop&) = delete;

    /// Runs tasks and timers on the calling thread, blocking while there are none, until stop().
    ///
    /// An exception from a task or a timer's handler leaves run(). The loop stays usable: tasks and
    /// timers that have not run yet are kept for the next run(), and so is a stop(), so that
    /// calling run() again after an exception never misses one.
    ///
    /// Thread: any, one at a time.
    /// Errors: throws std::logic_error when a run() or dispatch() is already under way, on any
    /// thread or around this very call, and std::system_error when waiting fails.
    void run();

    /// Makes run() return once the handler under way, if any, has returned; no further one is
    /// started, and what is waiting stays for the next run(). To let everything posted so far run
    /// first (a graceful shutdown), post a task that calls stop().
    ///
    /// A stop() that finds no run() under way is not lost: the next run() returns at once. So a
    /// thread that is about to enter run() can safely be stopped. Several calls count as one until
    /// a run() has returned because of them. dispatch() neither obeys nor uses up a stop().
    ///
    /// Thread: any, also inside a handler.
    void stop();

    /// The descriptor that becomes readable when something is due (it may do so without cause). It
    /// belongs to the loop: watch it for reading, level-triggered, and do nothing else with it.
    ///
    /// Thread: any.
    int fd() const noexcept;

    /// Runs one turn, without blocking: everything that is due now. Returns the number of tasks and
    /// timer handlers that were run. Exceptions behave as with run(); fd() stays readable while
    /// something due is left.
    ///
    /// Thread: any, one at a time.
    /// Errors: throws std::logic_error when a run() or dispatch() is already under way.
    std::size_t dispatch();

    /// Queues a copy of `task`, which is made and destroyed outside the loop's lock. An empty task
    /// is ignored.
    ///
    /// Thread: any; takes no time that depends on what the loop is doing.
    /// Handler: `task` runs once, in posting order, on the thread inside run() or dispatch().
    /// Errors: throws std::bad_alloc or what copying the task throws; the task is not queued then.
    void post(const std::function<void()>& task) override;

    /// A new, idle timer. Its set_timeout() and stop() never throw; set_handler() may throw
    /// std::bad_alloc and then leaves the old handler in place. An empty handler counts as none.
    ///
    /// Thread: any.
    /// Handler: on the thread inside run() or dispatch().
    /// Errors: throws std::bad_alloc.
    std::shared_ptr<timer> create_timer() override;

private:
    std::shared_ptr<detail::loop_core> core_;
};

} // namespace tarn::loops
