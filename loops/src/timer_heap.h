/// The armed timers of a loop, ordered by deadline: a binary heap whose entries know their place.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace tarn::loops::detail {

/// What the loop knows of one timer. Owned by the timer, guarded by the lock of the loop.
struct timer_entry {
    /// Shared with a call under way, which may outlive the timer or see the handler replaced.
    std::shared_ptr<const std::function<void()>> handler;
    std::chrono::nanoseconds deadline{0};
    /// Settles ties between equal deadlines: the timer that was armed first goes first.
    std::uint64_t order = 0;
    /// Place in the heap; `idle` when the timer is not armed.
    std::size_t position = idle;
    /// Expired when it had no handler: due as soon as it is given one.
    bool missed = false;

    static constexpr std::size_t idle = static_cast<std::size_t>(-1);
};

/// Not thread-safe. Erases from the middle in logarithmic time, which is what most timers see:
/// a time limit is usually disarmed long before it is reached.
class timer_heap {
public:
    bool empty() const noexcept { return entries_.empty(); }

    /// The entry that is due first. The heap must not be empty.
    timer_entry& top() const noexcept { return *entries_.front(); }

    /// Makes room for `count` entries in all, so that push() cannot fail up to there.
    void reserve(std::size_t count);

    /// How many entries fit without asking for memory.
    std::size_t room() const noexcept { return entries_.capacity(); }

    /// Gives memory back when there is room for many more than `count` entries, which must be no
    /// fewer than the heap holds.
    void give_back(std::size_t count) noexcept;

    /// Adds an idle entry, which must stay where it is until it is erased.
    void push(timer_entry& entry);

    /// Removes the entry; does nothing when it is idle.
    void erase(timer_entry& entry) noexcept;

    /// Removes all entries.
    void clear() noexcept;

private:
    static bool before(const timer_entry& left, const timer_entry& right) noexcept;
    void place(timer_entry& entry, std::size_t position) noexcept;
    void sift_up(timer_entry& entry, std::size_t position) noexcept;
    void sift_down(timer_entry& entry, std::size_t position) noexcept;

    std::vector<timer_entry*> entries_;
};

} // namespace tarn::loops::detail
