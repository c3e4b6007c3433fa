/// The one way between the two sides: tasks to the loop thread, and tasks to the application's
/// loop.
#pragma once

#include "client/identity.h"
#include "client/memory_reserve.h"
#include "client/task.h"
#include "tarn/event_loop.h"
#include "tarn/stats.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace tarn {

/// Moves tasks between the application's threads and the loop thread.
///
/// Results are delivered once for a burst of them, at its end, not one by one: each delivery may
/// wake a thread. See in_burst().
///
/// Never destroyed while the loop thread runs. The lock inside is the last one that is taken: only
/// the queues are called with it held.
class task_bridge : public self_counted {
public:
    explicit task_bridge(const std::weak_ptr<utils::event_loop>& loop);

    // --- any thread of the application ---

    /// The application's loop. Throws std::runtime_error when it is gone.
    std::shared_ptr<utils::event_loop> get_eloop() const;

    /// Runs `work` on the loop thread, after what was posted before. The first one after the start
    /// and after a cancel() lets results reach the application's loop again. Throws when the loop
    /// thread cannot be woken, or the application's loop not be asked; `work` is not queued then.
    void post_to_uloop(task& work);
    /// The same for work that must be done. When there is no memory to ask the application's loop
    /// for anything, the loop thread does, or the next request.
    void post_ready(task& work) noexcept;

    /// Runs `work` on the application's loop, never inside this call. Throws when the loop cannot
    /// be asked; `work` is not queued then.
    void schedule_task(task& work);

    /// The same for a task that runs on the application's loop, or on a thread that cancels, and
    /// has more to do there later.
    void put_back(task& work) noexcept;

    /// Has the application's loop run `work` if this life lasts until then.
    void post(const std::function<void()>& work);

    /// Runs everything that is queued for the application's loop, what is left of an interrupted
    /// batch included, while the life `tied` lasts: none for a thread that cancels, whose turn is
    /// over when the next life begins. The rest waits for the next drain. When a task throws the
    /// rest of the batch is dropped, except transitions, which wait as well; and the exception is
    /// rethrown.
    void process_task_queue(life_id tied);
    /// The life that the drain is tied to that the calling thread is in.
    static life_id drained() noexcept;

    /// The lengths of the queues.
    void fill(stats& snapshot) const;

    /// The current life.
    life_id life() const noexcept { return life_; }

    /// Ends the current life: what has been passed to the application's loop becomes a no-op.
    void end_life() noexcept;
    /// Results wait for the application's next request.
    void hold_delivery() noexcept;
    /// Begins the next one and has the application's loop run what is queued. False when the bridge
    /// has been closed.
    bool begin_life();
    void request_drain();

    /// Closes the bridge in both directions and ends the current life. Work on its way to the loop
    /// thread is still done.
    void close() noexcept;
    /// As post_ready(), also when the bridge is closed.
    void post_last(task& work) noexcept;
    /// Drops what is queued for the application's loop. Only when the loop thread has ended.
    void drop_tasks() noexcept;

    // --- the loop thread ---

    /// Runs `work` on the application's loop: with the end of the burst, or at once outside of one.
    void post_from_uloop(task& work);
    /// The same for what no request of the application has asked for, and none may follow: it does
    /// not wait for the next one, as results do after a cancel().
    void post_due_from_uloop(task& work);

    /// Whether results wait for the end of the burst.
    bool holds_results() const noexcept { return !burst_.empty(); }

    /// Runs `work` on this thread, when nothing of libubus is on its stack.
    void post_within(task& work) noexcept;

    /// Delivers what has been posted since the burst began. For a burst that is going to wait.
    void flush();

    /// Does `work` and delivers its results at the end, together.
    template <class Work>
    void in_burst(const Work& work) {
        struct nested {
            int& depth;
            explicit nested(int& d)
                : depth(++d) {}
            ~nested() { --depth; }
        };
        {
            const nested inside(burst_depth_);
            work();
        }
        if (burst_depth_ == 0) {
            flush();
        }
    }

    /// Takes the tasks that have been posted to the loop thread.
    void take_batch(task_queue& batch) noexcept;

    memory_reserve& reserve() noexcept { return reserve_; }

private:
    void queue_for_uloop(task& work);
    bool needs_drain(bool due) noexcept;
    void note_queued() noexcept;
    void drain_refused() noexcept;
    void ask_again();
    void post_drain(life_id tied);
    void post_covered_drain(life_id asking);
    void drop_batch(life_id tied) noexcept;

    const std::weak_ptr<utils::event_loop> loop_;

    mutable std::mutex lock_; ///< guards the members down to closed_
    std::atomic<life_id> life_{next_after(life_id::none)};
    life_id last_life_ = life_; ///< also while life_ is none
    task_queue to_uloop_;
    bool wakeup_owed_ = false;     ///< the loop thread could not be woken for what is queued
    task_queue queue_;             ///< for the application's loop
    task_queue batch_;             ///< taken out of queue_ by a drain that has not come to its end
    bool drain_requested_ = false; ///< the application's loop has been asked to empty queue_
    bool delivery_waits_ = true;   ///< results wait for the application's next request
    std::uint64_t most_to_uloop_ = 0; ///< entries in the queues at a time, so far
    std::uint64_t most_queued_ = 0;
    bool asking_again_ = false; ///< the task is queued
    bool closed_ = false;       ///< the loop thread is gone or going: nothing more may be posted

    // The loop thread's alone.
    task_queue burst_;
    bool burst_is_due_ = false;
    int burst_depth_ = 0;
    memory_reserve reserve_;
    loop_task<task_bridge, &task_bridge::ask_again> ask_again_task_{*this};
};

} // namespace tarn
