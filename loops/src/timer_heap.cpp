/// The heap of armed timers.
#include "timer_heap.h"

#include <algorithm>
#include <new>

namespace tarn::loops::detail {

void timer_heap::reserve(std::size_t count) {
    if (count > entries_.capacity()) {
        entries_.reserve(std::max(count, entries_.capacity() * 2));
    }
}

void timer_heap::give_back(std::size_t count) noexcept {
    // Moved at most once for every halving, so removing timers stays cheap; small heaps are left.
    constexpr std::size_t small = 128;
    if (entries_.capacity() <= small || entries_.capacity() / 4 < count) {
        return;
    }
    try {
        std::vector<timer_entry*> fewer;
        fewer.reserve(std::max(small, 2 * count));
        fewer.assign(entries_.begin(), entries_.end());
        entries_.swap(fewer);
    } catch (const std::bad_alloc&) {
        // The room that is there serves as well.
    }
}

void timer_heap::push(timer_entry& entry) {
    entries_.push_back(&entry);
    sift_up(entry, entries_.size() - 1);
}

void timer_heap::erase(timer_entry& entry) noexcept {
    if (entry.position == timer_entry::idle) {
        return;
    }
    const std::size_t hole = entry.position;
    entry.position = timer_entry::idle;
    timer_entry& last = *entries_.back();
    entries_.pop_back();
    if (&last == &entry) {
        return;
    }
    if (hole > 0 && before(last, *entries_[(hole - 1) / 2])) {
        sift_up(last, hole);
    } else {
        sift_down(last, hole);
    }
}

void timer_heap::clear() noexcept {
    for (timer_entry* entry : entries_) {
        entry->position = timer_entry::idle;
    }
    entries_.clear();
}

bool timer_heap::before(const timer_entry& left, const timer_entry& right) noexcept {
    return left.deadline != right.deadline ? left.deadline < right.deadline
                                           : left.order < right.order;
}

void timer_heap::place(timer_entry& entry, std::size_t position) noexcept {
    entries_[position] = &entry;
    entry.position = position;
}

void timer_heap::sift_up(timer_entry& entry, std::size_t position) noexcept {
    while (position > 0) {
        const std::size_t parent = (position - 1) / 2;
        if (!before(entry, *entries_[parent])) {
            break;
        }
        place(*entries_[parent], position);
        position = parent;
    }
    place(entry, position);
}

void timer_heap::sift_down(timer_entry& entry, std::size_t position) noexcept {
    for (;;) {
        std::size_t child = 2 * position + 1;
        if (child >= entries_.size()) {
            break;
        }
        if (child + 1 < entries_.size() && before(*entries_[child + 1], *entries_[child])) {
            ++child;
        }
        if (!before(*entries_[child], entry)) {
            break;
        }
        place(*entries_[child], position);
        position = child;
    }
    place(entry, position);
}

} // namespace tarn::loops::detail
