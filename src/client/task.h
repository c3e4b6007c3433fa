/// Work for one of the two threads, and the queues in which it waits.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace tarn {

/// A piece of work for one of the two threads. What must not fail for lack of memory is one of
/// these: it is allocated in advance, mostly as a part of what it works on, and queueing it does
/// not allocate.
///
/// It may be queued again once it has begun to run, and never while it is queued.
class task {
public:
    task() = default;
    task(const task&) = delete;
    task& operator=(const task&) = delete;

    /// Does the work. Called at most once for each time that it was queued.
    virtual void run() = 0;

    /// Instead of run(), for a task of the application's side behind one that threw: does what is
    /// owed to others, and calls no handler.
    virtual void drop() noexcept {}

    /// Whether it is never dropped: the application's loop runs it later.
    virtual bool is_transition() const noexcept { return false; }

protected:
    ~task() = default;

private:
    friend class task_queue;

    task* next_ = nullptr;
    std::shared_ptr<void> kept_;
};

/// Tasks in the order of their arrival. Nothing here allocates or throws. No lock inside.
class task_queue {
public:
    struct entry {
        task* work = nullptr;
        std::shared_ptr<void> kept; ///< what keeps the task alive
        explicit operator bool() const noexcept { return work != nullptr; }
    };

    task_queue() = default;
    task_queue(const task_queue&) = delete;
    task_queue& operator=(const task_queue&) = delete;
    /// Releases the tasks, one after another.
    ~task_queue();

    bool empty() const noexcept { return first_ == nullptr; }
    std::size_t size() const noexcept { return size_; }
    /// `kept` keeps `work` alive while it is in the queue.
    void push(task& work, std::shared_ptr<void>&& kept) noexcept;
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

/// A task that owns a function, in one block of memory.
template <class Work>
class function_task final : public task {
public:
    explicit function_task(Work&& work)
        : work_(std::move(work)) {}
    void run() override { work_(); }

private:
    Work work_;
};

template <class Work>
std::shared_ptr<function_task<Work>> make_task(Work work) {
    return std::make_shared<function_task<Work>>(std::move(work));
}

/// A task that is a part of `Owner` and calls its member function `Run`.
template <class Owner, void (Owner::*Run)()>
class part_task : public task {
public:
    explicit part_task(Owner& owner)
        : owner_(owner) {}
    void run() override { (owner_.*Run)(); }

protected:
    Owner& owner_;
    ~part_task() = default;
};

/// The same for one that is never dropped.
template <class Owner, void (Owner::*Run)()>
class transition_task final : public part_task<Owner, Run> {
public:
    using part_task<Owner, Run>::part_task;
    bool is_transition() const noexcept override { return true; }
};

/// The same for one that calls `Drop` when it is dropped.
template <class Owner, void (Owner::*Run)(), void (Owner::*Drop)() noexcept>
class droppable_task final : public part_task<Owner, Run> {
public:
    using part_task<Owner, Run>::part_task;
    void drop() noexcept override { (this->owner_.*Drop)(); }
};

/// The same for one of the loop thread, which drops nothing.
template <class Owner, void (Owner::*Run)()>
class loop_task final : public part_task<Owner, Run> {
public:
    using part_task<Owner, Run>::part_task;
};

} // namespace tarn
