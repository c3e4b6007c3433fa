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

void client_impl::queue_from_uloop(std::function<void()>&& task) {
    bool was_empty = false;
    with_reserve([&] {
        const std::lock_guard<std::mutex> guard(task_lock_);
        was_empty = task_queue_.empty();
        task_queue_.push_back(std::move(task));
    });
    if (was_empty) {
        with_reserve([this] {
            const std::lock_guard<std::mutex> guard(delivery_lock_);
            if (!delivery_waits_) {
                post([this] { process_task_queue(); });
            }
        });
    }
}

void client_impl::schedule_task(std::function<void()>&& task) {
    bool drain = false;
    {
        const std::lock_guard<std::mutex> guard(task_lock_);
        drain = task_queue_.empty();
        task_queue_.push_back(std::move(task));
    }
    if (!drain) {
        // A queue that fills up while delivery waits has no drain on its way; the task must not
        // wait with it for a request that may never come.
        const std::lock_guard<std::mutex> guard(delivery_lock_);
        drain = delivery_waits_;
    }
    if (drain) {
        post([this] { process_task_queue(); });
    }
}

void client_impl::process_task_queue() {
    std::list<std::function<void()>> batch;
    {
        const std::lock_guard<std::mutex> guard(task_lock_);
        batch.swap(task_queue_);
    }
    while (!batch.empty()) {
        const auto task = std::move(batch.front());
        batch.pop_front();
        task();
    }
}

utils::link client_impl::report_later(const completion_handler& handler,
                                      const std::error_code& code) {
    if (!handler) {
        return {};
    }
    auto wrapped = misc::link_handler(handler, false);
    schedule_task([report = std::move(wrapped.first), code] { report(code); });
    return wrapped.second;
}

} // namespace tarn
