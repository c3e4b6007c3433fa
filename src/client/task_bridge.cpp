/// Tasks on their way between the two sides.
#include "client/task_bridge.h"

#include "client/handover.h"
#include "client/side.h"
#include "tarn/uloop.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tarn {

namespace {

thread_local life_id drain_of = life_id::none;

/// The calling thread is in a drain.
class draining {
public:
    explicit draining(life_id tied) noexcept
        : outer_(std::exchange(drain_of, tied)) {}
    ~draining() { drain_of = outer_; }
    draining(const draining&) = delete;
    draining& operator=(const draining&) = delete;

private:
    const life_id outer_;
};

} // namespace

task_bridge::task_bridge(const std::weak_ptr<utils::event_loop>& loop)
    : loop_(loop) {}

std::shared_ptr<utils::event_loop> task_bridge::get_eloop() const {
    auto loop = loop_.lock();
    if (!loop) {
        throw std::runtime_error("tarn_impl::client: No event loop");
    }
    return loop;
}

void task_bridge::post(const std::function<void()>& work) {
    const life_id tied = life_;
    if (tied == life_id::none) {
        return;
    }
    get_eloop()->post([this, work, tied] {
        if (life_ == tied) {
            work();
        }
    });
}

void task_bridge::post_drain(life_id tied) {
    const auto loop = loop_.lock();
    if (!loop && life_ != tied) {
        return; // closed since, and the loop destroyed after that
    }
    // Two words, which a std::function holds without allocating.
    (loop ? loop : get_eloop())->post([this, tied] {
        if (life_ == tied) {
            process_task_queue(tied);
        }
    });
    handover();
}

/// With the lock held: whether the application's loop has to be asked for a drain, which then
/// counts as requested. One that is `due` does not wait for the application's next request.
bool task_bridge::needs_drain(bool due) noexcept {
    if ((delivery_waits_ && !due) || drain_requested_ || life_ == life_id::none) {
        return false;
    }
    drain_requested_ = true;
    return true;
}

/// With the lock held: something has been queued for the application's loop.
void task_bridge::note_queued() noexcept {
    most_queued_ = std::max<std::uint64_t>(most_queued_, queue_.size() + batch_.size());
}

/// A drain could not be requested. The loop thread may have relied on it for results, which no
/// request of the application may follow: so it asks again.
void task_bridge::drain_refused() noexcept {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        drain_requested_ = false;
        if (queue_.empty() || closed_ || std::exchange(asking_again_, true)) {
            return;
        }
    }
    try {
        queue_for_uloop(ask_again_task_);
    } catch (...) {
        // The loop thread's wake-up is broken, and with it everything.
        const std::lock_guard<std::mutex> guard(lock_);
        asking_again_ = false;
    }
}

void task_bridge::ask_again() {
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        asking_again_ = false;
        if (!queue_.empty() && !closed_ && needs_drain(true)) {
            asking = life_;
        }
    }
    try {
        post_covered_drain(asking);
    } catch (...) {
        // No memory even now, or no loop. Asked for by whatever comes next.
    }
}

/// For the loop thread: requests the drain that counts as requested, with the reserve if need be.
void task_bridge::post_covered_drain(life_id asking) {
    if (asking == life_id::none) {
        return;
    }
    try {
        reserve_.cover([&] { post_drain(asking); });
    } catch (...) {
        const std::lock_guard<std::mutex> guard(lock_);
        drain_requested_ = false;
        throw;
    }
}

void task_bridge::post_to_uloop(task& work) {
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (closed_) {
            return;
        }
        if (delivery_waits_ || (!queue_.empty() && !drain_requested_)) {
            delivery_waits_ = false;
            drain_requested_ = drain_requested_ || life_ != life_id::none;
            asking = life_;
        }
    }
    if (asking != life_id::none) {
        try {
            post_drain(asking);
        } catch (...) {
            drain_refused();
            throw;
        }
    }
    handover();
    queue_for_uloop(work);
    handover();
}

void task_bridge::queue_for_uloop(task& work) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const bool woken = !to_uloop_.empty() && !wakeup_owed_;
        to_uloop_.push(work);
        most_to_uloop_ = std::max<std::uint64_t>(most_to_uloop_, to_uloop_.size());
        if (woken) {
            return;
        }
        wakeup_owed_ = false;
    }
    try {
        uloop::get_instance().post_source();
    } catch (...) {
        task_queue::entry refused; // released outside the lock
        const std::lock_guard<std::mutex> guard(lock_);
        refused = to_uloop_.remove(work);
        wakeup_owed_ = !to_uloop_.empty();
        if (refused) {
            throw;
        }
        // The thread has been woken otherwise.
    }
}

void task_bridge::post_ready(task& work) noexcept {
    try {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (closed_) {
                return;
            }
        }
        queue_for_uloop(work);
        life_id asking = life_id::none;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (delivery_waits_ || (!queue_.empty() && !drain_requested_)) {
                delivery_waits_ = false;
                asking = life_;
            }
        }
        if (asking != life_id::none) {
            post_drain(asking);
        }
    } catch (...) {
        // No memory to ask for a drain. Or the loop thread's wake-up is broken, and with it
        // everything.
        drain_refused();
    }
}

void task_bridge::post_last(task& work) noexcept {
    post_within(work);
}

void task_bridge::post_within(task& work) noexcept {
    try {
        queue_for_uloop(work);
    } catch (...) {
        // The loop thread's wake-up is broken, and with it everything.
    }
}

void task_bridge::schedule_task(task& work) {
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const bool was_empty = queue_.empty();
        queue_.push(work);
        note_queued();
        // Also while delivery waits: the task must not wait with it for a request that may never
        // come.
        if (was_empty || !drain_requested_) {
            asking = life_;
            drain_requested_ = asking != life_id::none;
        }
    }
    if (asking == life_id::none) {
        return;
    }
    try {
        post_drain(asking);
    } catch (...) {
        task_queue::entry refused; // released outside the lock
        {
            const std::lock_guard<std::mutex> guard(lock_);
            refused = queue_.remove(work);
        }
        drain_refused();
        if (refused) {
            throw;
        }
    }
}

void task_bridge::put_back(task& work) noexcept {
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        queue_.push(work);
        note_queued();
        if (needs_drain(true)) {
            asking = life_;
        }
    }
    try {
        if (asking != life_id::none) {
            post_drain(asking);
        }
    } catch (...) {
        drain_refused();
    }
}

void task_bridge::fill(stats& snapshot) const {
    const std::lock_guard<std::mutex> guard(lock_);
    snapshot.to_private_thread = {to_uloop_.size(), most_to_uloop_};
    snapshot.to_application = {queue_.size() + batch_.size(), most_queued_};
}

void task_bridge::request_drain() {
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        asking = life_;
        drain_requested_ = asking != life_id::none;
    }
    if (asking == life_id::none) {
        return;
    }
    try {
        post_drain(asking);
    } catch (...) {
        drain_refused();
        throw;
    }
}

life_id task_bridge::drained() noexcept {
    return drain_of;
}

void task_bridge::process_task_queue(life_id tied) {
    const draining here(tied);
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (life_ != tied) {
            return;
        }
        batch_.append(queue_);
        drain_requested_ = false;
    }
    for (;;) {
        task_queue::entry next;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (life_ == tied) {
                next = batch_.pop();
            }
        }
        if (!next) {
            return;
        }
        handover();
        try {
            next.work->run();
        } catch (...) {
            drop_batch(tied);
            throw;
        }
    }
}

/// Drops what is left of the batch, unless a newer life's drain has that by now.
void task_bridge::drop_batch(life_id tied) noexcept {
    task_queue dropped;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (life_ != tied) {
            return;
        }
        dropped.swap(batch_);
    }
    task_queue transitions;
    while (task_queue::entry next = dropped.pop()) {
        if (next.work->is_transition()) {
            transitions.push(*next.work);
        } else {
            next.work->drop();
        }
    }
    if (transitions.empty()) {
        return;
    }
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        transitions.append(queue_);
        queue_.swap(transitions);
        asking = life_;
        drain_requested_ = asking != life_id::none;
    }
    try {
        if (asking != life_id::none) {
            post_drain(asking);
        }
    } catch (...) {
        drain_refused();
    }
}

void task_bridge::end_life() noexcept {
    const std::lock_guard<std::mutex> guard(lock_);
    life_ = life_id::none;
}

void task_bridge::hold_delivery() noexcept {
    const std::lock_guard<std::mutex> guard(lock_);
    delivery_waits_ = true;
}

bool task_bridge::begin_life() {
    const std::lock_guard<std::mutex> guard(lock_);
    if (closed_) {
        return false;
    }
    last_life_ = next_after(last_life_);
    life_ = last_life_;
    return true;
}

void task_bridge::close() noexcept {
    const std::lock_guard<std::mutex> guard(lock_);
    closed_ = true;
    life_ = life_id::none;
}

void task_bridge::drop_tasks() noexcept {
    task_queue dropped;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        dropped.append(batch_);
        dropped.append(queue_);
    }
    while (const task_queue::entry next = dropped.pop()) {
        next.work->drop();
    }
}

void task_bridge::post_from_uloop(task& work) {
    burst_.push(work);
    if (burst_depth_ == 0) {
        flush();
    }
}

void task_bridge::post_due_from_uloop(task& work) {
    burst_is_due_ = true;
    post_from_uloop(work);
}

void task_bridge::flush() {
    if (burst_.empty()) {
        return;
    }
    handover();
    const bool due = std::exchange(burst_is_due_, false);
    life_id asking = life_id::none;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (closed_) {
            queue_.append(burst_); // for drop_tasks()
            return;
        }
        if (queue_.empty()) {
            drain_requested_ = false; // one that was asked for may have run out by now
        }
        queue_.append(burst_);
        note_queued();
        if (needs_drain(due)) {
            asking = life_;
        }
    }
    post_covered_drain(asking);
}

void task_bridge::take_batch(task_queue& batch) noexcept {
    handover();
    const std::lock_guard<std::mutex> guard(lock_);
    batch.append(to_uloop_);
    wakeup_owed_ = false;
}

} // namespace tarn
