/// What a task can wait for with co_await: a call, the connection, time. For programs in C++20; a
/// compiler without coroutines, or one in C++17, finds nothing here.
#pragma once

#include "tarn/ext/task.h"

#if defined(__cpp_impl_coroutine)

#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/event_loop.h"
#include "tarn/ext/call.h"
#include "tarn/ext/detail/whole_seconds.h"
#include "tarn/ext/fields.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <chrono>
#include <coroutine>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace tarn::ext {

namespace detail {

/// The run of the task whose coroutine waits at `here`.
template <class Promise>
std::shared_ptr<task_run> run_of(std::coroutine_handle<Promise> here) {
    static_assert(std::is_base_of_v<promise_base, Promise>,
                  "this is awaited in a tarn::ext::task only");
    return here.promise().run->shared_from_this();
}

/// What awaitables have in common: they wait where they stand.
class awaitable {
public:
    awaitable() = default;
    awaitable(const awaitable&) = delete;
    awaitable& operator=(const awaitable&) = delete;
};

template <class T>
class [[nodiscard]] call_awaitable : awaitable {
public:
    call_awaitable(client& bus, std::string path, std::string method, blob::table args,
                   std::chrono::milliseconds limit)
        : bus_(bus)
        , path_(std::move(path))
        , method_(std::move(method))
        , args_(std::move(args))
        , limit_(limit) {}

    bool await_ready() const noexcept { return false; }

    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> here) {
        link_ = ext::call<T>(bus_, path_, method_, args_, limit_,
                             [run = run_of(here), here, answer = answer_](result<T> outcome) {
                                 // The thread that cancels may be any.
                                 const bool elsewhere = outcome.error() == error::generic::aborted;
                                 answer->emplace(std::move(outcome));
                                 if (elsewhere) {
                                     run->post([run, here] { run->resume(here); });
                                 } else {
                                     run->resume(here);
                                 }
                             });
    }

    result<T> await_resume() { return std::move(**answer_); }

private:
    client& bus_;
    const std::string path_;
    const std::string method_;
    const blob::table args_;
    const std::chrono::milliseconds limit_;
    /// Shared with the handler: it may be writing on the loop while the frame is destroyed
    /// elsewhere.
    const std::shared_ptr<std::optional<result<T>>> answer_ =
        std::make_shared<std::optional<result<T>>>();
    utils::scoped_link link_;
};

class [[nodiscard]] connected_awaitable : awaitable {
public:
    explicit connected_awaitable(client& bus)
        : bus_(bus) {}

    bool await_ready() const { return bus_.is_active(); }

    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> here) {
        // A subscriber runs on whichever thread changes the state, and several changes may have
        // been told before the loop gets to the first: `over` is used on the loop's thread alone.
        const auto wake = [run = run_of(here), here, over = std::make_shared<bool>(false),
                           &bus = bus_] {
            run->post([run, here, over, &bus] {
                if (!*over && bus.is_active()) {
                    *over = true;
                    run->resume(here);
                }
            });
        };
        link_ = bus_.notify_on_state_change([wake](client::state now) {
            if (now == client::state::connected) {
                wake();
            }
        });
        if (bus_.is_active()) {
            wake(); // since await_ready()
        }
    }

    void await_resume() const noexcept {}

private:
    client& bus_;
    utils::scoped_link link_;
};

/// The tasks that sleep. Nothing but its timer will resume such a task, and nobody but the task
/// owns the timer: so it is owned here meanwhile. Never destroyed: at the end of the process the
/// others are left where they are.
class sleepers {
public:
    static sleepers& instance() {
        static auto* const all = new sleepers;
        return *all;
    }
    void add(const std::shared_ptr<task_run>& run) {
        const std::lock_guard guard(lock_);
        runs_.emplace(run.get(), run);
    }
    void remove(const task_run* run) {
        const std::lock_guard guard(lock_);
        runs_.erase(run); // not the last owner: who destroys the frame is one as well
    }

private:
    std::mutex lock_;
    std::map<const task_run*, std::shared_ptr<task_run>> runs_;
};

class [[nodiscard]] sleep_awaitable : awaitable {
public:
    sleep_awaitable(const client& bus, std::chrono::seconds delay)
        : loop_(bus.get_event_loop())
        , delay_(delay) {}
    ~sleep_awaitable() {
        if (run_ != nullptr) {
            sleepers::instance().remove(run_);
        }
    }

    bool await_ready() const noexcept { return false; }

    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> here) {
        const auto loop = loop_.lock();
        if (!loop) {
            throw std::runtime_error("tarn::ext::sleep: the client has no event loop");
        }
        timer_ = loop->create_timer();
        const auto run = run_of(here);
        timer_->set_handler([waiting = std::weak_ptr<task_run>(run), here] {
            if (const auto sleeper = waiting.lock()) {
                sleeper->resume(here);
            }
        });
        sleepers::instance().add(run);
        run_ = run.get();
        timer_->set_timeout(delay_);
    }

    void await_resume() const noexcept {}

private:
    const std::weak_ptr<utils::event_loop> loop_;
    const std::chrono::seconds delay_;
    std::shared_ptr<utils::event_loop::timer> timer_;
    const task_run* run_ = nullptr; ///< while it is among the sleepers
};

} // namespace detail

/// `co_await call<T>(bus, path, method, args, limit)` calls as client::invoke() does and yields a
/// result<T>: T is reply, a structure of TARN_FIELDS, or void where only success counts. The first
/// reply counts; none is a table without fields. A reply that is no T is msg::parse_error, and
/// message() names the field. The call begins when it is awaited. `limit` is rounded up to whole
/// seconds, which is what the client counts; zero, which is the default, means no limit: a callee
/// that dies then leaves the task waiting for good.
/// Thread: in a task.
/// Errors: the codes of client::invoke(), generic::aborted after client::cancel() included; throws
/// what invoke() throws.
template <class T = reply>
detail::call_awaitable<T> call(client& bus, std::string path, std::string method,
                               blob::table args = {}, std::chrono::milliseconds limit = {}) {
    return {bus, std::move(path), std::move(method), std::move(args), limit};
}

/// The same with a structure of TARN_FIELDS as the arguments.
template <class T = reply, class Args, std::enable_if_t<detail::has_fields<Args>, int> = 0>
detail::call_awaitable<T> call(client& bus, std::string path, std::string method, const Args& args,
                               std::chrono::milliseconds limit = {}) {
    return {bus, std::move(path), std::move(method), detail::write_fields(args), limit};
}

/// `co_await connected(bus)` waits until the client is connected, and goes on at once when it is.
/// It does not connect: that is asked of client::connect() or auto_connect(). There is no time
/// limit: end the task to give up.
/// Thread: in a task.
/// Errors: none. When the task goes on the connection may have been lost again, as ever.
inline detail::connected_awaitable connected(client& bus) {
    return detail::connected_awaitable(bus);
}

/// `co_await sleep(bus, delay)` waits for that time, on a timer of the client's loop. Timers count
/// whole seconds: a part of a second is rounded up to the next one. A delay of zero or less lets
/// everything else that is due have its turn.
/// Thread: in a task.
/// Errors: throws std::runtime_error when the client's event loop is gone.
template <class Rep, class Period>
detail::sleep_awaitable sleep(const client& bus, const std::chrono::duration<Rep, Period>& delay) {
    return {bus, detail::whole_seconds(delay)};
}

} // namespace tarn::ext

#endif
