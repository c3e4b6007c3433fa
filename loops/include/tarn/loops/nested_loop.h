/// The common part of the adapters that give the client an event loop which the application has
/// already: an epoll_loop nested into it.
#pragma once

#include "tarn/event_loop.h"
#include "tarn/loops/epoll_loop.h"

#include <functional>
#include <memory>

namespace tarn::loops {

/// What the client posts and the timers it arms are kept by an epoll_loop. The adapter watches the
/// one descriptor of that in the application's loop and gives it a turn whenever it is readable. So
/// other threads never touch the application's loop, whatever that allows, and a burst of posts
/// costs it one wake-up.
///
/// Thread: post() and create_timer() any, all functions of timers as well. An adapter is made and
/// destroyed on the thread that runs the application's loop, or while no thread runs it, and not
/// inside a task or a handler of a timer. Tasks that are still waiting are destroyed with it.
class nested_loop : public utils::event_loop {
public:
    nested_loop(const nested_loop&) = delete;
    nested_loop& operator=(const nested_loop&) = delete;

    /// Queues a copy of `task` for the application's loop. An empty task is ignored.
    /// Thread: any; never blocks on what the loop is doing.
    /// Handler: `task` runs on the thread that runs the loop, once, in posting order.
    /// Errors: throws std::bad_alloc or what copying the task throws; it is not queued then.
    void post(const std::function<void()>& task) override { inner_->post(task); }

    /// A new, idle timer.
    /// Thread: any.
    /// Handler: on the thread that runs the loop. Does nothing once the adapter is destroyed.
    /// Errors: throws std::bad_alloc.
    std::shared_ptr<timer> create_timer() override { return inner_->create_timer(); }

protected:
    /// Errors: throws std::system_error when a descriptor cannot be had, and std::bad_alloc.
    nested_loop() = default;
    ~nested_loop() override = default;

    /// What the adapter watches and gives turns. Its callbacks hold it weakly or for one turn.
    const std::shared_ptr<epoll_loop>& inner() const noexcept { return inner_; }

private:
    const std::shared_ptr<epoll_loop> inner_ = std::make_shared<epoll_loop>();
};

} // namespace tarn::loops
