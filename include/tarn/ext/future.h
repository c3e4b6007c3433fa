/// tarn::ext::async_call: a call whose result is waited for, on a thread that has nothing else to
/// do.
#pragma once

#include "tarn/client.h"
#include "tarn/ext/call.h"
#include "tarn/ext/detail/loop_thread.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace tarn::ext {

namespace detail {

/// What a future waits for.
template <class T>
class future_state {
public:
    explicit future_state(std::shared_ptr<loop_thread> loop)
        : loop_(std::move(loop)) {}

    /// Has an effect once.
    void set(result<T>&& outcome) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (outcome_) {
                return;
            }
            outcome_.emplace(std::move(outcome));
        }
        ready_.notify_all();
    }

    bool is_ready() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return outcome_.has_value();
    }

    void wait() const {
        refuse_on_loop();
        std::unique_lock<std::mutex> guard(lock_);
        ready_.wait(guard, [this] { return outcome_.has_value(); });
    }

    template <class Clock, class Duration>
    bool wait_until(const std::chrono::time_point<Clock, Duration>& end) const {
        refuse_on_loop();
        std::unique_lock<std::mutex> guard(lock_);
        return ready_.wait_until(guard, end, [this] { return outcome_.has_value(); });
    }

    /// Once it is ready.
    result<T> take() {
        const std::lock_guard<std::mutex> guard(lock_);
        return std::move(*outcome_);
    }

private:
    void refuse_on_loop() const {
        if (loop_ && loop_->is_this_one() && !is_ready()) {
            throw std::logic_error(
                "tarn::ext::future: waiting on the event loop's own thread, where the result would "
                "have to arrive; use tarn::ext::call() with a handler there");
        }
    }

    const std::shared_ptr<loop_thread> loop_; ///< null when the client names no loop
    mutable std::mutex lock_;
    mutable std::condition_variable ready_;
    std::optional<result<T>> outcome_;
};

/// Sees to it that nobody waits for a handler that the client dropped without calling it.
template <class T>
class future_setter {
public:
    explicit future_setter(std::shared_ptr<future_state<T>> state)
        : state_(std::move(state)) {}
    future_setter(future_setter&&) noexcept = default;
    future_setter(const future_setter&) = delete;
    future_setter& operator=(const future_setter&) = delete;
    future_setter& operator=(future_setter&&) = delete;
    ~future_setter() {
        if (state_) {
            state_->set(error::generic::aborted);
        }
    }

    void operator()(result<T> outcome) { state_->set(std::move(outcome)); }

private:
    std::shared_ptr<future_state<T>> state_;
};

} // namespace detail

/// The result of a call that is under way, from async_call(). What std::future offers, and more:
///  - waiting on the event loop's own thread, where the result would have to arrive, throws
///    std::logic_error instead of blocking for good, unless the result is there already;
///  - a future that is destroyed before it has its result ends the call.
///
/// Which thread is the loop's is learned by a task that the first use of tarn::ext with this client
/// posts to the loop. What cannot be detected is therefore a wait inside the very task of the loop
/// in which tarn::ext is used for the first time, and a wait before the loop is run at all. When
/// the loop moves to another thread, that one becomes known with the first outcome of a call of
/// tarn::ext that arrives there: until then a wait on the former thread is refused although it
/// would not block for good, and one on the new thread is not detected.
///
/// It converts to a std::future, which refuses in the same way; wait_for() of that one does not
/// poll, but returns std::future_status::deferred.
///
/// Thread: any, one at a time.
template <class T>
class [[nodiscard]] future {
public:
    /// Of no call.
    future() = default;
    /// Of `call`, which sets `state`. For async_call().
    future(std::shared_ptr<detail::future_state<T>> state, const utils::link& call)
        : state_(std::move(state))
        , call_(call) {}
    /// Takes over the call of `other`, which is left without one.
    future(future&& other) noexcept = default;
    /// The same; ends the call that this future had. Throws what link::release() throws.
    future& operator=(future&& other) = default;
    /// Ends the call if it is pending.
    ~future() = default;

    /// Whether there is a call whose result has not been fetched.
    bool valid() const noexcept { return state_ != nullptr; }

    /// Whether the result is there, so that get() does not wait.
    bool is_ready() const { return state().is_ready(); }

    /// Waits for the result and returns its value; the future is not valid() afterwards.
    /// Errors: throws std::system_error with the code and message of the result when the call
    ///   failed (generic::aborted when the client dropped it); std::logic_error on the loop's own
    ///   thread, after which the future is as it was; std::future_error when not valid().
    T get() { return get_result().value(); }

    /// As get(), but a failed call is returned, not thrown.
    result<T> get_result() {
        state().wait();
        const auto taken = std::move(state_);
        return taken->take();
    }

    /// Waits for the result. Errors: as get(), but for those of the call.
    void wait() const { state().wait(); }

    /// Waits for the result, at most for `limit`. A limit of zero or less only looks, on any
    /// thread. Errors: as wait().
    template <class Rep, class Period>
    std::future_status wait_for(const std::chrono::duration<Rep, Period>& limit) const {
        if (limit <= limit.zero()) {
            return status(is_ready());
        }
        // A year at a time, since the largest limits are beyond every clock.
        constexpr std::chrono::hours year(24 * 365);
        if (limit > year) {
            return wait_until(std::chrono::steady_clock::now() + year) == std::future_status::ready
                       ? std::future_status::ready
                       : wait_for(limit - year);
        }
        return wait_until(std::chrono::steady_clock::now() + limit);
    }

    /// Waits for the result, at most until `end`. Errors: as wait().
    template <class Clock, class Duration>
    std::future_status wait_until(const std::chrono::time_point<Clock, Duration>& end) const {
        return status(state().wait_until(end));
    }

    /// The same call as a std::future: its get() and wait() do what get() does. Destroying it
    /// before it was waited for ends the call.
    operator std::future<T>() && {
        state(); // not one without a call
        const auto shared = std::make_shared<future>(std::move(*this));
        return std::async(std::launch::deferred, [shared] { return shared->get(); });
    }

private:
    detail::future_state<T>& state() const {
        if (!state_) {
            throw std::future_error(std::future_errc::no_state);
        }
        return *state_;
    }

    static std::future_status status(bool ready) {
        return ready ? std::future_status::ready : std::future_status::timeout;
    }

    std::shared_ptr<detail::future_state<T>> state_;
    utils::scoped_link call_;
};

/// As call(), but returns a future of the result instead of taking a handler. T is a reply unless
/// it is given. The future ends the call when it is destroyed before the result is there.
///
/// Thread: any but that of the event loop, where the result cannot be waited for.
/// Errors: throws what call() throws.
template <class T = reply, class Rep, class Period>
future<T> async_call(client& bus, const std::string& path, const std::string& method,
                     const blob::table& args, const std::chrono::duration<Rep, Period>& limit) {
    const auto state = std::make_shared<detail::future_state<T>>(detail::loop_thread::of(bus));
    return {state, call<T>(bus, path, method, args, limit, detail::future_setter<T>(state))};
}

/// The same with arguments of any type that is written as a table.
template <class T = reply, class Args, class Rep, class Period>
future<T> async_call(client& bus, const std::string& path, const std::string& method,
                     const Args& args, const std::chrono::duration<Rep, Period>& limit) {
    return async_call<T>(bus, path, method, detail::arguments(args), limit);
}

/// The same without arguments.
template <class T = reply, class Rep, class Period>
future<T> async_call(client& bus, const std::string& path, const std::string& method,
                     const std::chrono::duration<Rep, Period>& limit) {
    return async_call<T>(bus, path, method, blob::table(), limit);
}

} // namespace tarn::ext
