/// The library's own loop: the one thread that calls libubus and libubox, and the way to hand it
/// work. Applications normally have no use for it; tarn::client starts and stops it.
#pragma once

#include "tarn/export.h"
#include "tarn/misc/unix_signal_actions.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>

namespace tarn {

/// libubox's event loop with a queue of tasks in front of it.
///
/// Tasks run one after another, in posting order, on the thread that is inside run(). While no
/// thread is, they wait for the next run(). Failures are std::runtime_error whose text begins with
/// "uloop: ".
///
/// Not to be confused with the application's loop (utils::event_loop), where handlers run.
class TARN_API uloop {
public:
    /// The one instance of the process, which is never destroyed. The tasks that are queued at the
    /// end of the process are destroyed unrun by its exit handlers, not in a forked child.
    ///
    /// Thread: any.
    static uloop& get_instance();

    uloop(const uloop&) = delete;
    uloop& operator=(const uloop&) = delete;

    /// Runs the loop on the calling thread until exit() is called or something fails. The process's
    /// dispositions of SIGINT, SIGTERM, SIGCHLD and SIGPIPE are the same before and after libubox's
    /// initialisation inside.
    ///
    /// When the loop ends, tasks still queued are destroyed without having run. An exception that
    /// leaves a task (or is reported through exception_handler()) ends the loop and is thrown from
    /// here; the rest of that task's batch is dropped.
    ///
    /// Errors: throws that exception, and std::runtime_error "uloop: " followed by
    ///   "Can't run second uloop"                 a run() is under way; it is not disturbed;
    ///   "Can't create socketpair for post [..."  no descriptors left;
    ///   "Can't init uloop"                       libubox's initialisation failed. The dispositions
    ///                                            it may have changed are not put back;
    ///   "Can't add fd to uloop [..."             libubox refused the wake-up descriptor;
    ///   "Unexptected uloop exit"                 the loop ended without having been asked to;
    /// and those of unix_signal_actions. After any of them run() may be called again. Tasks posted
    /// before a run() that failed to start stay queued.
    void run();

    /// Asks a running loop to stop: tasks still queued, and those posted from now on, are not run.
    /// A no-op that leaves nothing behind for the next run() when the loop is not running.
    ///
    /// Thread: any, tasks included.
    /// Errors: throws what notify() throws; the loop has then not been asked to stop.
    void exit();

    /// Queues `task`; an empty one is ignored.
    ///
    /// Thread: any, tasks included: what a task posts runs after all that was queued with it.
    /// Handler: `task` runs on the loop's thread, never inside this call, and is destroyed there
    /// as soon as it has run.
    /// Errors: throws what notify() throws, and std::bad_alloc; the task is then not queued.
    void post(std::function<void()>&& task);
    /// The same with a copy of `task`.
    void post(const std::function<void()>& task);

    /// Runs everything that is queued; when exit() was called, ends the loop instead. For the
    /// loop's own use. `drain_wakeup` says that a wake-up byte is there to be consumed.
    ///
    /// Thread: the loop's only.
    /// Errors: throws std::runtime_error "uloop: Can't clean uloop notify buffer: ..." when the
    /// byte cannot be read, and what a task throws; the tasks not yet run are then dropped.
    void process(bool drain_wakeup);

    /// Wakes the loop if it runs, is not asked to stop, and has no task queued (with one queued it
    /// has been woken already: the wake-ups of a burst of posts are coalesced into one). For the
    /// loop's own use.
    ///
    /// Thread: any.
    /// Errors: throws std::runtime_error "uloop: Can't notify uloop: ..." when it cannot be woken.
    void notify();

    /// Ends the loop with the exception being handled, which run() then throws; of several, the
    /// last. For callbacks that C code calls, from inside a catch block on the loop's thread;
    /// called with no exception being handled it ends the process.
    void exception_handler() noexcept;

private:
    friend class client_impl;
    friend class task_bridge;

    using task_list = std::list<std::function<void()>>;

    TARN_HIDDEN uloop();
    ~uloop() = default;

    // What the client alone uses.

    /// Sets the task that post_source() queues.
    TARN_HIDDEN void set_source(std::function<void()>&& source);
    /// post() for the source, which is queued once until it runs, and outlives the end of a run in
    /// the queue. Needs no memory.
    TARN_HIDDEN void post_source();
    /// run(), when a run that is under way has been asked to stop and has ended. Calls `started`
    /// when tasks are about to be run.
    TARN_HIDDEN void run_after_others(const std::function<void()>& started);
    /// Whether a run() is under way on the calling thread.
    TARN_HIDDEN bool runs_here();

    TARN_HIDDEN void open_wakeup();
    TARN_HIDDEN void close_wakeup() noexcept;
    TARN_HIDDEN void run_opened(const std::function<void()>& started);
    TARN_HIDDEN void run_libubox(const std::function<void()>& started);
    TARN_HIDDEN bool needs_wakeup() const noexcept;
    TARN_HIDDEN void write_wakeup();
    TARN_HIDDEN void wake_up(const std::function<void()>* queued, task_list& refused);
    TARN_HIDDEN void run_batch(task_list& batch, const std::function<void()>* source);
    TARN_HIDDEN void drop_queue(task_list& dropped) noexcept;
    TARN_HIDDEN void drop_tasks() noexcept;

    std::exception_ptr pending_exception_;
    const std::string prefix_;
    int wakeup_[2]; ///< write end, read end; open while running_
    bool running_ = false;
    bool exiting_ = false;
    pid_t owner_; ///< the process that ran the loop last, or made the instance
    /// Guards everything here. No task runs and none is destroyed while it is held. Recursive,
    /// since notify() is part of exit() and is also called alone.
    std::recursive_mutex lock_;
    /// A list, since taking it whole must not allocate: a failure could not be reported there.
    task_list queue_;
    task_list source_;                                     ///< the source while it is not queued
    const std::function<void()>* queued_source_ = nullptr; ///< the source while it is
    std::thread::id runner_;                               ///< the thread inside run()
    std::condition_variable_any ended_;                    ///< a run has come to its end
    bool wakeup_failed_ = false; ///< a task is queued that the loop could not be woken for
    std::atomic<int> waking_{0}; ///< posts about to write a byte. Rises with lock_ held
    /// Guards the write end while a byte is written. A post does not hold lock_ then: the thread
    /// that the byte wakes would have to wait for the writer. Taken after lock_.
    std::mutex wakeup_lock_;
};

} // namespace tarn
