/// The traffic of tasks between the application's side and the loop thread.
#include "client/client_impl.h"

#include "tarn/misc.h"
#include "tarn/uloop.h"

#include <utility>

namespace tarn {

std::weak_ptr<void> client_impl::get_tracker() const {
    const std::lock_guard<std::mutex> guard(state_lock_);
    return life_token_;
}

std::weak_ptr<void> client_impl::connection_tracker() const {
    const std::lock_guard<std::mutex> guard(state_lock_);
    return connection_token_;
}

void client_impl::post(const std::function<void()>& task) {
    // Only watched here, never held: a token held for an instant by one thread would keep tasks
    // audible that cancel() has just silenced on another.
    auto tracker = get_tracker();
    if (tracker.expired()) {
        return;
    }
    if (const auto loop = loop_.lock()) {
        loop->post(misc::tie_handler(task, tracker));
    } else if (!tracker.expired()) { // else stopped since, and the loop destroyed after it
        get_eloop();                 // throws
    }
}

void client_impl::post_to_uloop(std::function<void()>&& task) {
    // Held across both halves: once stop() has set its flag nobody touches the loop any more, whose
    // instance is destroyed soon after.
    const std::lock_guard<std::mutex> guard(delivery_lock_);
    if (stopped_) {
        return;
    }
    if (delivery_waits_) {
        post([this] { process_task_queue(); });
        delivery_waits_ = false;
    }
    uloop::get_instance().post(std::move(task));
}

void client_impl::post_ready(uloop::ready_task task) noexcept {
    try {
        const std::lock_guard<std::mutex> guard(delivery_lock_);
        if (stopped_) {
            return;
        }
        uloop::get_instance().post_ready(std::move(task));
        if (delivery_waits_) {
            post([this] { process_task_queue(); });
            delivery_waits_ = false;
        }
    } catch (...) {
        // No memory to ask for a drain: the next request does. Or the loop thread has failed.
    }
}

void client_impl::queue_from_uloop(std::function<void()>&& task) {
    with_reserve([&] {
        const std::lock_guard<std::mutex> guard(task_lock_);
        task_queue_.push_back(std::move(task));
    });
    with_reserve([this] {
        const std::lock_guard<std::mutex> guard(delivery_lock_);
        if (!delivery_waits_) {
            request_drain();
        }
    });
}

void client_impl::schedule_task(std::function<void()>&& task) {
    {
        const std::lock_guard<std::mutex> guard(task_lock_);
        task_queue_.push_back(std::move(task));
    }
    // Also while delivery waits: the task must not wait with it for a request that may never come.
    request_drain();
}

void client_impl::request_drain() {
    {
        const std::lock_guard<std::mutex> guard(task_lock_);
        if (drain_requested_ || task_queue_.empty()) {
            return;
        }
        drain_requested_ = true;
    }
    post_drain();
}

void client_impl::post_drain() {
    // The flag is set already: a drain that runs at once, on another thread, takes it back.
    try {
        post([this] { process_task_queue(); });
    } catch (...) {
        const std::lock_guard<std::mutex> guard(task_lock_);
        drain_requested_ = false;
        throw;
    }
}

void client_impl::process_task_queue() {
    std::list<std::function<void()>> batch;
    {
        const std::lock_guard<std::mutex> guard(task_lock_);
        batch.swap(task_queue_);
        drain_requested_ = false;
    }
    while (!batch.empty()) {
        const auto task = std::move(batch.front());
        batch.pop_front();
        task();
    }
}

} // namespace tarn
