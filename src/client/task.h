/// Work for one of the two threads, and the queues in which it waits.
#pragma once

#include "counted.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace tarn {

/// A piece of work for one of the two threads. What must not fail for lack of memory is one of
/// these: it is allocated in advance, mostly as a part of what it works on, and queueing it does
/// not allocate. While it is queued it keeps its owner alive.
///
/// It may be queued again once it has begun to run, and never while it is queued.
class task {
public:
    /// What is done with the tasks of one kind. A constant of functions instead of a class with
    /// virtual ones, which would come with type information of its own for each kind.
    struct kind {
        void (*run)(self_counted& owner);
        /// Instead of run(), for a task of the application's side behind one that threw: does what
        /// is owed to others, and calls no handler. May be null.
        void (*drop)(self_counted& owner) noexcept;
        bool is_transition; ///< never dropped: the application's loop runs it later
    };

    /// `owner` is what the functions of `what` are given.
    task(self_counted& owner, const kind& what) noexcept
        : owner_(owner)
        , kind_(what) {}
    task(const task&) = delete;
    task& operator=(const task&) = delete;

    /// Does the work. Called at most once for each time that it was queued.
    void run() { kind_.run(owner_); }

    void drop() noexcept {
        if (kind_.drop) {
            kind_.drop(owner_);
        }
    }

    bool is_transition() const noexcept { return kind_.is_transition; }

protected:
    ~task() = default;

private:
    friend class task_queue;

    self_counted& owner_;
    const kind& kind_;
    task* next_ = nullptr;
    std::shared_ptr<void> kept_;
};

/// Tasks in the order of their arrival. Nothing here allocates or throws. No lock inside.
class task_queue {
public:
    struct entry {
        task* work = nullptr;
        std::shared_ptr<void> kept; ///< its owner, unless that one is never destroyed
        explicit operator bool() const noexcept { return work != nullptr; }
    };

    task_queue() = default;
    task_queue(const task_queue&) = delete;
    task_queue& operator=(const task_queue&) = delete;
    /// Releases the tasks, one after another.
    ~task_queue();

    bool empty() const noexcept { return first_ == nullptr; }
    std::size_t size() const noexcept { return size_; }
    void push(task& work) noexcept;
    /// The oldest; an empty entry when there is none.
    entry pop() noexcept;
    /// Takes all of `other` behind what is here.
    void append(task_queue& other) noexcept;
    void swap(task_queue& other) noexcept;
    /// Takes `work` out. Empty when it is not there. Looks at every task.
    entry remove(const task& work) noexcept;

private:
    task* first_ = nullptr;
    task* last_ = nullptr;
    std::size_t size_ = 0;
};

/// Calls a member function of an `Owner`.
template <class Owner, void (Owner::*Run)()>
void run_part(self_counted& owner) {
    (static_cast<Owner&>(owner).*Run)();
}
template <class Owner, void (Owner::*Drop)() noexcept>
void drop_part(self_counted& owner) noexcept {
    if constexpr (Drop != nullptr) {
        (static_cast<Owner&>(owner).*Drop)();
    }
}

/// A task that is a part of `Owner` and calls its member function `Run`. One of the loop thread,
/// which drops nothing.
template <class Owner, void (Owner::*Run)()>
class loop_task final : public task {
public:
    explicit loop_task(Owner& owner) noexcept
        : task(owner, steps) {}

private:
    static constexpr kind steps{&run_part<Owner, Run>, nullptr, false};
};

/// The same for one of the application's loop that is never dropped.
template <class Owner, void (Owner::*Run)()>
class transition_task final : public task {
public:
    explicit transition_task(Owner& owner) noexcept
        : task(owner, steps) {}

private:
    static constexpr kind steps{&run_part<Owner, Run>, nullptr, true};
};

/// The same for one that is dropped, and calls `Drop` then.
template <class Owner, void (Owner::*Run)(), void (Owner::*Drop)() noexcept = nullptr>
class droppable_task final : public task {
public:
    explicit droppable_task(Owner& owner) noexcept
        : task(owner, steps) {}

private:
    static constexpr kind steps{&run_part<Owner, Run>, &drop_part<Owner, Drop>, false};
};

} // namespace tarn
