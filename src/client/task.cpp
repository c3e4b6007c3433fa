/// The queues of tasks.
#include "client/task.h"

#include <cassert>

namespace tarn {

task_queue::~task_queue() {
    while (pop()) {}
}

void task_queue::push(task& work) noexcept {
    assert(!work.kept_ && !work.next_);
    work.kept_ = work.owner_.self();
    if (last_) {
        last_->next_ = &work;
    } else {
        first_ = &work;
    }
    last_ = &work;
    ++size_;
}

task_queue::entry task_queue::pop() noexcept {
    entry oldest;
    if (first_) {
        oldest.work = first_;
        oldest.kept = std::move(first_->kept_);
        first_ = std::exchange(first_->next_, nullptr);
        if (!first_) {
            last_ = nullptr;
        }
        --size_;
    }
    return oldest;
}

void task_queue::append(task_queue& other) noexcept {
    if (other.empty()) {
        return;
    }
    if (last_) {
        last_->next_ = other.first_;
    } else {
        first_ = other.first_;
    }
    last_ = std::exchange(other.last_, nullptr);
    other.first_ = nullptr;
    size_ += std::exchange(other.size_, 0);
}

void task_queue::swap(task_queue& other) noexcept {
    std::swap(first_, other.first_);
    std::swap(last_, other.last_);
    std::swap(size_, other.size_);
}

task_queue::entry task_queue::remove(const task& work) noexcept {
    task_queue rest;
    entry found;
    while (entry next = pop()) {
        if (next.work == &work) {
            found = std::move(next);
        } else {
            rest.push(*next.work);
        }
    }
    swap(rest);
    return found;
}

} // namespace tarn
