/// task<T> and spawn(): coroutines that run on the application's loop, for programs in C++20. A
/// compiler without coroutines, or one in C++17, finds nothing here.
#pragma once

#if defined(__cpp_impl_coroutine)

#include "tarn/client.h"
#include "tarn/event_loop.h"
#include "tarn/link.h"

#include <atomic>
#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace tarn::ext {

template <class T>
class task;
template <class T>
class finished;

namespace detail {

template <class T>
class spawned;

/// One spawned task with all the tasks that it awaits: at most one of their coroutines is to be
/// resumed at a time, and this object resumes it.
///
/// The coroutines are resumed one after the other by the loop in resume(), never by one another:
/// symmetric transfer would need tail calls, which compilers make only when they optimise, and a
/// task that awaits 100,000 ready ones would use up the stack of a debug build.
///
/// It is owned by the handler that will resume it, and owns the outermost frame. So a task whose
/// result can no longer come is destroyed with the handler that waits for it.
class task_run : public std::enable_shared_from_this<task_run> {
public:
    explicit task_run(std::weak_ptr<utils::event_loop> loop)
        : loop_(std::move(loop)) {}
    task_run(const task_run&) = delete;
    task_run& operator=(const task_run&) = delete;
    virtual ~task_run() = default;

    /// Lets the coroutine go on until it waits, or does nothing when the task was ended. On the
    /// loop's thread. Throws what the handler of the end throws.
    void resume(std::coroutine_handle<> here) {
        const auto self = shared_from_this();
        {
            const std::lock_guard guard(lock_);
            if (ended_) {
                return; // another thread may be destroying the frame
            }
            running_ = true;
        }
        next_ = here;
        while (next_ && !ended_) {
            std::exchange(next_, nullptr).resume();
        }
        const bool done = body_done();
        bool ended = false;
        {
            const std::lock_guard guard(lock_);
            running_ = false;
            ended = ended_;
            ended_ = ended || done;
        }
        if (ended) {
            drop_body();
        } else if (done) {
            finish();
        }
    }

    /// Runs `work` on the loop's thread later, for what happens on other threads. When the loop is
    /// gone the task waits for good.
    template <class Work>
    void post(Work&& work) const {
        if (const auto loop = loop_.lock()) {
            loop->post(std::forward<Work>(work));
        }
    }

    /// Ends the task: destroys its frames now when it waits, else when it comes to wait. Any
    /// thread.
    void end() {
        const auto self = shared_from_this();
        {
            const std::lock_guard guard(lock_);
            if (ended_) {
                return;
            }
            ended_ = true;
            if (running_) {
                return;
            }
        }
        drop_body();
    }

    bool active() const noexcept { return !ended_; }

    /// What the coroutine that is running leaves to be resumed when it waits.
    void set_next(std::coroutine_handle<> next) noexcept { next_ = next; }

    const std::weak_ptr<utils::event_loop>& loop() const noexcept { return loop_; }

private:
    virtual bool body_done() const noexcept = 0;
    /// Destroys the frames.
    virtual void drop_body() noexcept = 0;
    /// Reports the outcome and destroys the frames.
    virtual void finish() = 0;

    const std::weak_ptr<utils::event_loop> loop_;
    std::coroutine_handle<> next_; ///< used while running_, by the thread that runs
    std::mutex lock_;
    bool running_ = false;
    std::atomic<bool> ended_{false}; ///< written under the lock
};

class promise_base {
public:
    struct final_awaiter {
        bool await_ready() const noexcept { return false; }
        template <class Promise>
        void await_suspend(std::coroutine_handle<Promise> here) const noexcept {
            here.promise().run->set_next(here.promise().continuation);
        }
        void await_resume() const noexcept {}
    };

    std::suspend_always initial_suspend() const noexcept { return {}; }
    final_awaiter final_suspend() const noexcept { return {}; }

    task_run* run = nullptr; ///< set before the coroutine is first resumed
    std::coroutine_handle<> continuation;
};

template <class T>
class task_promise : public promise_base {
public:
    task<T> get_return_object() noexcept;
    void unhandled_exception() noexcept { thrown_ = std::current_exception(); }
    template <class U = T, std::enable_if_t<std::is_convertible_v<U, T>, int> = 0>
    void return_value(U&& value) {
        value_.emplace(std::forward<U>(value));
    }
    T take() {
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
        return std::move(*value_);
    }
    std::exception_ptr thrown() const noexcept { return thrown_; }

private:
    std::optional<T> value_;
    std::exception_ptr thrown_;
};

template <>
class task_promise<void> : public promise_base {
public:
    task<void> get_return_object() noexcept;
    void unhandled_exception() noexcept { thrown_ = std::current_exception(); }
    void return_void() const noexcept {}
    void take() const {
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
    }
    std::exception_ptr thrown() const noexcept { return thrown_; }

private:
    std::exception_ptr thrown_;
};

} // namespace detail

/// A coroutine that yields a T (or nothing) in the end: write `task<int> f(...) { co_return 1; }`.
///
/// Lazy: nothing of it runs before it is awaited by another task (`int n = co_await f(...)`), or
/// given to spawn(). An exception that leaves it is thrown by the co_await that awaits it. Awaiting
/// costs no stack, however many tasks are awaited, or however deep.
///
/// Thread: all of it runs on the application's loop: from the start and after each co_await.
///
/// Destroying a task destroys its frame, and with it the task that it awaits, or the link of the
/// call, timer or subscription: what was waited for is cancelled. A task that has been given to
/// spawn() is ended by the link that spawn() returned.
///
/// The frame keeps parameters, but not what references refer to, nor the captures of a lambda whose
/// body is the coroutine: take parameters by value, and keep such a lambda alive until the end.
///
/// g++ 12 mistreats braces inside a co_await expression: it refuses `co_await call(bus, "demo",
/// "echo", {{"msg", "x"}})`, and copies an aggregate in braces bit by bit. Give such an argument a
/// name in a statement of its own.
template <class T = void>
class [[nodiscard]] task {
    static_assert(!std::is_reference_v<T>, "a task yields a value; return a pointer");

public:
    /// The compiler's side of the coroutine.
    using promise_type = detail::task_promise<T>;

    /// Takes over the coroutine; `other` is empty afterwards.
    task(task&& other) noexcept
        : frame_(std::exchange(other.frame_, nullptr)) {}
    /// Exchanges the coroutines of the two.
    task& operator=(task&& other) noexcept {
        std::swap(frame_, other.frame_);
        return *this;
    }
    ~task() {
        if (frame_) {
            frame_.destroy();
        }
    }

    /// Runs the task and yields its result, or throws what it threw. In another task only, and
    /// once: `co_await std::move(t)` for one that has a name. Throws std::logic_error when the task
    /// was moved from.
    auto operator co_await() && {
        if (!frame_) {
            throw std::logic_error("tarn::ext::task: awaited after it was moved from");
        }
        return awaiter{frame_};
    }

private:
    template <class>
    friend class detail::task_promise;
    template <class>
    friend class detail::spawned;
    struct awaiter {
        bool await_ready() const noexcept { return false; }
        template <class Promise>
        void await_suspend(std::coroutine_handle<Promise> parent) noexcept {
            static_assert(std::is_base_of_v<detail::promise_base, Promise>,
                          "a task is awaited by a task; anywhere else use tarn::ext::spawn()");
            child.promise().run = parent.promise().run;
            child.promise().continuation = parent;
            parent.promise().run->set_next(child);
        }
        T await_resume() { return child.promise().take(); }

        std::coroutine_handle<promise_type> child;
    };

    explicit task(std::coroutine_handle<promise_type> frame) noexcept
        : frame_(frame) {}

    std::coroutine_handle<promise_type> frame_;
};

/// The outcome of a spawned task: its value or the exception that left it.
template <class T>
class finished {
public:
    /// The value, moved out, or throws what left the task. Once.
    T get() { return promise_.take(); }
    /// The exception that left the task, else null.
    std::exception_ptr exception() const noexcept { return promise_.thrown(); }

private:
    friend class detail::spawned<T>;
    explicit finished(detail::task_promise<T>&& promise)
        : promise_(std::move(promise)) {}

    detail::task_promise<T> promise_;
};

namespace detail {

/// A task with its handler, not started.
template <class T>
class spawned final : public task_run {
public:
    using handler = std::function<void(finished<T>)>;

    spawned(std::weak_ptr<utils::event_loop> loop, task<T>&& body, handler&& on_done)
        : task_run(std::move(loop))
        , on_done_(std::move(on_done))
        , body_(std::move(body))
        , first_(body_.frame_) {
        if (!first_) {
            throw std::logic_error("tarn::ext::spawn: the task was moved from");
        }
        first_.promise().run = this;
    }

    /// Runs the task until it first waits. On the loop's thread, once.
    void start() { resume(first_); }

private:
    bool body_done() const noexcept override { return body_.frame_.done(); }

    void drop_body() noexcept override {
        { const task<T> dying = std::move(body_); }
        on_done_ = nullptr; // last: it may own what the frame refers to
    }

    void finish() override {
        finished<T> outcome(std::move(body_.frame_.promise()));
        const handler on_done = std::move(on_done_);
        drop_body();
        if (on_done) {
            on_done(std::move(outcome));
        } else if (outcome.exception()) {
            std::rethrow_exception(outcome.exception());
        }
    }

    handler on_done_; ///< outlives the frame here too, where the task is dropped
    // Another thread may end the task at any time: what it has destroyed is not looked at.
    task<T> body_;
    const std::coroutine_handle<task_promise<T>> first_;
};

template <class T>
task<T> task_promise<T>::get_return_object() noexcept {
    return task<T>(std::coroutine_handle<task_promise>::from_promise(*this));
}

inline task<void> task_promise<void>::get_return_object() noexcept {
    return task<void>(std::coroutine_handle<task_promise>::from_promise(*this));
}

/// The link of a spawned task, which it does not keep alive.
class task_link final : public utils::link::impl {
public:
    explicit task_link(std::weak_ptr<task_run> run)
        : run_(std::move(run)) {}
    void release() override {
        if (const auto run = run_.lock()) {
            run->end();
        }
    }
    bool active() const override {
        const auto run = run_.lock();
        return run && run->active();
    }

private:
    const std::weak_ptr<task_run> run_;
};

inline utils::link link_to(const std::shared_ptr<task_run>& run) {
    return misc::aggregate_adapter<utils::link>(std::make_shared<task_link>(run));
}

} // namespace detail

/// Runs `work` on the loop of `bus`, from the loop's next turn on.
/// The link is active until the task has ended. Dropping it leaves the task running; release() (or
/// a utils::scoped_link) ends the task. Released on the loop's thread, nothing of the task runs
/// afterwards; a task that releases its own link runs on to its next co_await that waits. Released
/// on another thread, what the task is just doing goes on to its next co_await, and its frame is
/// then destroyed on the loop's thread, otherwise on the releasing one.
/// Thread: any.
/// Handler: `on_done`, void(finished<T>), once on the loop when the task has come to its end; not
/// when it was ended by the link. May be omitted: an exception that leaves the task then passes
/// through the loop, like that of any handler.
/// Errors: throws std::runtime_error when the client has no event loop, and std::logic_error for a
/// task that was moved from. A task whose result can no longer come, since the client was stopped
/// at the end of the process, is destroyed without a report.
template <class T, class Handler>
utils::link spawn(const client& bus, task<T> work, Handler on_done) {
    const auto loop = bus.get_event_loop();
    const auto open = loop.lock();
    if (!open) {
        throw std::runtime_error("tarn::ext::spawn: the client has no event loop");
    }
    const auto run =
        std::make_shared<detail::spawned<T>>(loop, std::move(work), std::move(on_done));
    open->post([run] { run->start(); });
    return detail::link_to(run);
}

/// The same without a handler.
template <class T>
utils::link spawn(const client& bus, task<T> work) {
    return spawn(bus, std::move(work), typename detail::spawned<T>::handler());
}

} // namespace tarn::ext

#endif
