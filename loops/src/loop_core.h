/// The working part of epoll_loop, shared with its timers, which may outlive the loop object.
#pragma once

#include "timer_heap.h"
#include "unique_fd.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <sys/types.h>

namespace tarn::loops::detail {

/// Owned by epoll_loop and its timers together: the timers need the lock for as long as they live,
/// the descriptors go with the loop. All functions may be called from any thread.
class loop_core {
public:
    loop_core();
    ~loop_core() = default;
    loop_core(const loop_core&) = delete;
    loop_core& operator=(const loop_core&) = delete;

    /// Called by the destructor of the loop object: destroys the waiting tasks, disarms all timers
    /// and closes the descriptors. From here on every operation does nothing.
    void close() noexcept;

    int fd() const noexcept { return epoll_.get(); }
    void run();
    std::size_t dispatch();
    void stop();
    void post(const std::function<void()>& task);

    /// Counts one more timer and makes room to arm it.
    void add_timer();
    /// Disarms the timer for good. Its handler is left for its owner to destroy.
    void remove_timer(timer_entry& entry) noexcept;
    void set_handler(timer_entry& entry, std::function<void()> action);
    void arm(timer_entry& entry, std::chrono::seconds delay) noexcept;
    void disarm(timer_entry& entry) noexcept;

private:
    // A list, not a deque: its nodes are made and destroyed outside the lock and only spliced under
    // it, so that nothing of the user's (copies, moves, destructors) ever runs with the lock held
    // and nothing can fail there.
    using task_list = std::list<std::function<void()>>;
    class turn_end;

    bool take_stop();
    void wait() const;
    std::size_t turn(bool stoppable);
    std::shared_ptr<const std::function<void()>> take_due(std::chrono::nanoseconds now,
                                                          std::uint64_t first_new);

    // These four expect the lock to be held.
    void insert(timer_entry& entry, std::chrono::nanoseconds deadline) noexcept;
    /// Whether the eventfd is to be written, which is then taken as done.
    bool needs_wakeup() noexcept;
    void clear_wakeup() noexcept;
    void program_timerfd() noexcept;

    /// Does what needs_wakeup() has taken as done. Without the lock, which the thread that it wakes
    /// takes first.
    void wake() noexcept;
    /// Writes the eventfd; false when the system refuses. The lock may be held.
    bool write_wakeup() noexcept;

    unique_fd epoll_;
    unique_fd eventfd_;
    unique_fd timerfd_;
    const pid_t owner_; // the process that made the loop
    std::atomic<bool> running_{false};
    // Written under the lock; read without it between two handlers.
    std::atomic<bool> stop_{false};

    // Guards everything below. Never held while a task, a handler or a destructor of one runs.
    std::mutex mutex_;
    // Keeps the eventfd open while it is written. Taken after mutex_.
    std::mutex wake_mutex_;
    task_list tasks_;
    timer_heap heap_;
    std::size_t timers_ = 0;
    std::uint64_t next_order_ = 0;
    // The deadline the timerfd was last set to. It may be earlier than the first timer's, since
    // disarming leaves it alone: one idle turn later is cheaper than a system call each time.
    std::chrono::nanoseconds programmed_;
    // True while the eventfd is readable, or about to be, so that a burst of posts costs one write.
    // So one write at most is under way or unread, and only the read that takes it ends this.
    bool woken_ = false;
    bool closed_ = false;
};

} // namespace tarn::loops::detail
