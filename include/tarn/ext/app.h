/// tarn::ext::app: a whole program around the client: its loop, its connection, its signals and its
/// exit status. Needs tarn::loops as well as tarn::ext.
#pragma once

#include "tarn/client.h"
#include "tarn/ext/backoff.h"
#include "tarn/ext/call.h"
#include "tarn/ext/detail/decode.h"
#include "tarn/ext/detail/exit_signals.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/result.h"
#include "tarn/ext/task.h"
#include "tarn/link.h"
#include "tarn/loops/epoll_loop.h"
#include "tarn/misc/callable_traits.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarn::ext {

namespace detail {

/// What the handler of app::call() takes: nothing, a T, or a result<T>.
template <class Signature>
struct app_handled;
template <class R>
struct app_handled<std::function<R()>> {
    using value = void;
    static constexpr bool takes_result = false;
};
template <class R, class Parameter>
struct app_handled<std::function<R(Parameter)>> {
    using value = std::decay_t<Parameter>;
    static constexpr bool takes_result = false;
};
template <class R, class T>
struct app_handled<std::function<R(result<T>)>> {
    using value = T;
    static constexpr bool takes_result = true;
};
template <class R, class T>
struct app_handled<std::function<R(const result<T>&)>> : app_handled<std::function<R(result<T>)>> {
};

/// The working part of an app. The loop's tasks refer to it weakly: what is left in the loop when
/// the app goes does nothing. Everything on the loop's thread, except where it says so.
class app_core : public std::enable_shared_from_this<app_core> {
    /// There is one at a time.
    class claim {
    public:
        claim() {
            if (taken().exchange(true)) {
                throw std::logic_error("tarn::ext::app: there is one already");
            }
        }
        ~claim() { taken() = false; }
        claim(const claim&) = delete;
        claim& operator=(const claim&) = delete;

    private:
        static std::atomic<bool>& taken() {
            static std::atomic<bool> there_is_one{false};
            return there_is_one;
        }
    };

public:
    enum class mode { idle, once, forever };

    app_core()
        : bus(client::get_instance(the_loop())) {}
    app_core(const app_core&) = delete;
    app_core& operator=(const app_core&) = delete;

    /// The process's loop. It outlives the client, which is made after it.
    static const std::shared_ptr<loops::epoll_loop>& the_loop() {
        static const auto loop = std::make_shared<loops::epoll_loop>();
        return loop;
    }

    /// Any thread. The first call counts.
    void stop(int status) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (status_) {
                return;
            }
            status_ = status;
        }
        the_loop()->post([] {}); // has wait() look
    }

    /// Any thread.
    bool stopped() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return status_.has_value();
    }

    /// Any thread.
    static void report(const std::string& what) { std::fputs((what + '\n').c_str(), stderr); }

    /// What the exception that is being handled says. Any thread.
    static std::string thrown_text() {
        try {
            throw;
        } catch (const std::exception& thrown) {
            return thrown.what();
        } catch (...) {
            return "unknown exception";
        }
    }

    /// Starts a call as soon as there is a connection. Any thread.
    void add(std::function<void()> start) {
        ++outstanding_;
        the_loop()->post([weak = weak_from_this(), start = std::move(start)] {
            if (const auto self = weak.lock()) {
                self->waiting_.push_back(start);
                self->start_waiting();
            }
        });
    }

    /// One call has ended; `failure` says why it failed, if it did.
    void ended(const std::optional<std::string>& failure) {
        if (failure) {
            report(*failure);
            failed_ = true;
        }
        if (--outstanding_ == 0 && mode_ == mode::once) {
            stop(failed_ ? 1 : 0);
        }
    }

    int run(mode how, const client::backoff_function& backoff) {
        if (mode_ != mode::idle) {
            throw std::logic_error("tarn::ext::app: it has been run already");
        }
        mode_ = how;
        states_ = bus.notify_on_state_change([weak = weak_from_this()](client::state now) {
            // Any thread.
            the_loop()->post([weak, now] {
                if (const auto self = weak.lock()) {
                    self->follow(now);
                }
            });
        });
        try {
            connect(backoff);
            wait();
        } catch (...) {
            report(thrown_text());
            stop(1);
        }
        end();
        return *status_; // which does not change any more
    }

private:
    const claim claim_;
    // Before the client: threads that it starts are to have the signals blocked.
    const exit_signals signals_;

public:
    client& bus;

private:
    void connect(const client::backoff_function& backoff) {
        if (bus.is_active()) {
            follow(client::state::connected);
        } else if (mode_ == mode::forever) {
            bus.auto_connect(backoff);
        } else {
            bus.connect([weak = weak_from_this()](const std::error_code& failed) {
                if (const auto self = weak.lock(); self && failed && !self->stopped()) {
                    report("cannot connect to the bus: " + failed.message());
                    self->stop(1);
                }
            });
        }
    }

    void follow(client::state now) {
        if (now == client::state::connected) {
            was_connected_ = true;
            start_waiting();
        } else if (now == client::state::disconnected && mode_ == mode::once && was_connected_ &&
                   !stopped()) {
            report("the connection to the bus has ended");
            stop(1);
        }
    }

    void start_waiting() {
        while (mode_ != mode::idle && bus.is_active() && !stopped() && !waiting_.empty()) {
            const auto start = std::move(waiting_.front());
            waiting_.pop_front();
            start();
        }
    }

    /// Turns the loop until stop().
    void wait() {
        loops::epoll_loop& loop = *the_loop();
        while (!stopped()) {
            pollfd both[] = {{loop.fd(), POLLIN, 0}, {signals_.fd(), POLLIN, 0}};
            if (::poll(both, 2, -1) < 0 && errno != EINTR) {
                throw std::system_error(errno, std::generic_category(), "poll");
            }
            if (const int signal = signals_.take()) {
                stop(mode_ == mode::forever ? 0 : 128 + signal);
            } else if ((both[0].revents & POLLIN) != 0) {
                loop.dispatch();
            }
        }
    }

    /// Ends what is pending while everything that its handlers refer to is still there, and lets
    /// them and the tasks that they wake have their turn.
    void end() {
        constexpr int turns = 100; // a handler that posts itself again does not keep the program
        states_.release();
        waiting_.clear();
        cancel();
        int turn = 0;
        for (bool more = true; more && turn < turns; ++turn) {
            try {
                more = the_loop()->dispatch() != 0;
            } catch (...) {
                report(thrown_text()); // the other tasks of the turn belong to the next one
            }
        }
    }

    /// client::cancel() to its end: one that throws has called at least one handler, or notified of
    /// a change of the state, and leaves the rest to the next.
    void cancel() {
        constexpr int most = 100000; // a lack of memory that lasts does not keep the program
        for (int round = 0; round < most; ++round) {
            try {
                return bus.cancel();
            } catch (...) {
                report(thrown_text());
            }
        }
    }

    mutable std::mutex lock_;   ///< guards status_
    std::optional<int> status_; ///< none until stop()
    std::atomic<long> outstanding_{0};
    std::list<std::function<void()>> waiting_;
    utils::link states_;
    mode mode_ = mode::idle;
    bool was_connected_ = false;
    std::atomic<bool> failed_{false}; ///< also written by a thread that cancels
};

} // namespace detail

/// A program around the client: the event loop, the connection, SIGINT and SIGTERM, and what main()
/// returns.
///
///     tarn::ext::app app;
///     app.call("demo", "echo", {{"msg", "hello"}}, [](const tarn::ext::reply& answer) {
///         std::cout << answer.at<std::string>("msg") << '\n';
///     });
///     return app.run();
///
/// run() is for programs that ask something and end: whatever goes wrong is printed to the standard
/// error output and makes the exit status 1. run_forever() is for services: it keeps the connection
/// and ends with a signal.
///
/// There is one at a time in a process, made in main() before other threads: SIGINT and SIGTERM are
/// blocked on its thread and on those started after it, and the programs that they start inherit
/// that. Objects that handlers refer to may be made after it, since no handler runs when run() has
/// returned.
class app {
public:
    /// Makes the loop and the client.
    /// Errors: throws std::logic_error while there is another app, and what client::get_instance()
    /// throws, such as for a program that made the client with a loop of its own.
    app()
        : core_(std::make_shared<detail::app_core>()) {}
    app(const app&) = delete;
    app& operator=(const app&) = delete;

    /// The client.
    client& bus() const { return core_->bus; }
    /// The loop, where all handlers run. It is not to be run by anyone but run().
    loops::epoll_loop& loop() const { return *detail::app_core::the_loop(); }

    /// Calls `method` of `path` once there is a connection. `args` and `limit` are those of
    /// ext::call(); without a `limit` it is 30 s.
    ///
    /// Thread: any.
    /// Handler: on the loop, once. One that takes a T (a reply, a structure of TARN_FIELDS), or
    ///   nothing, is called when the call has succeeded; a failure, and an exception that it
    ///   throws, is printed as "path.method: reason" and makes run() return 1. One that takes a
    ///   result<T> is called in any case and decides itself. Neither is called for a call that had
    ///   not begun when the app ended: without a bus, after stop(), or after a signal.
    /// Errors: as for ext::call(), to the handler or printed.
    template <class Handler>
    void call(const std::string& path, const std::string& method, const blob::table& args,
              Handler handler, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
        using handled = detail::app_handled<typename misc::callable_traits<Handler>::type>;
        using value = typename handled::value;
        const auto kept = std::make_shared<Handler>(std::move(handler));
        const std::weak_ptr<detail::app_core> weak = core_;
        core_->add([weak, path, method, args, kept, limit] {
            const auto core = weak.lock();
            ext::call<value>(core->bus, path, method, args, limit, [=](result<value> outcome) {
                if (const auto self = weak.lock()) {
                    std::optional<std::string> reason;
                    try {
                        reason = hand_over<handled::takes_result>(*self, *kept, outcome);
                    } catch (...) {
                        reason = detail::app_core::thrown_text();
                    }
                    if (reason) {
                        reason->insert(0, path + '.' + method + ": ");
                    }
                    self->ended(reason);
                }
            });
        });
    }

    /// The same with a structure of TARN_FIELDS as the arguments.
    template <class Args, class Handler, std::enable_if_t<detail::has_fields<Args>, int> = 0>
    void call(const std::string& path, const std::string& method, const Args& args, Handler handler,
              std::chrono::milliseconds limit = std::chrono::seconds(30)) {
        call(path, method, detail::write_fields(args), std::move(handler), limit);
    }

    /// Connects once and runs until every call() has ended, and where there is none until stop().
    /// Returns the exit status: 0, or 1 after a call that failed, an exception of a handler, the
    /// end of the connection, or when there is no bus, each printed; that of stop(); or 128 and the
    /// number of the signal that ended it. What is pending then is ended by client::cancel(),
    /// before it returns. Thread: the one that made the app. Errors: throws std::logic_error when
    /// the app has been run.
    int run() { return core_->run(detail::app_core::mode::once, {}); }

    /// Connects, again and again after each loss with the given delays, and runs until stop(),
    /// whose status it returns, or a signal, after which it returns 0, or fail(), after which it
    /// returns 1. A call() that fails is printed, no more. An exception of any other handler is
    /// printed and ends it with 1.
    /// Thread: the one that made the app.
    /// Errors: throws std::logic_error when the app has been run.
    int run_forever(const client::backoff_function& delays =
                        backoff::exponential(std::chrono::seconds(1), std::chrono::seconds(30))) {
        return core_->run(detail::app_core::mode::forever, delays);
    }

    /// Has run() return `status` (of several, the first), or return at once when it is called
    /// later. Thread: any.
    void stop(int status = 0) { core_->stop(status); }

    /// Prints `what` and has run() return 1.
    /// Thread: any.
    void fail(const std::string& what) {
        detail::app_core::report(what);
        core_->stop(1);
    }

private:
    /// Calls the handler, unless the call has failed and that is not its business: why, then.
    template <bool TakesResult, class Handler, class T>
    static std::optional<std::string> hand_over(const detail::app_core& core, Handler& handler,
                                                result<T>& outcome) {
        if constexpr (TakesResult) {
            handler(std::move(outcome));
        } else if (!outcome) {
            if (!core.stopped()) {
                return outcome.message();
            }
        } else if constexpr (std::is_void_v<T>) {
            handler();
        } else {
            handler(*std::move(outcome));
        }
        return std::nullopt;
    }

    std::shared_ptr<detail::app_core> core_;
};

#if defined(__cpp_impl_coroutine)

/// app::run() for a program that is a task: runs `work`, and returns when it has ended what it
/// yielded, 0 for a task<void>. An exception that leaves the task is printed and makes that 1. What
/// ends app::run() otherwise ends this as well, with the status given there. Thread: the one that
/// made the app. The task runs on the loop; begin it with `co_await connected(...)`.
template <class T>
int run(app& program, task<T> work) {
    static_assert(std::is_void_v<T> || std::is_same_v<T, int>, "a task<> or a task<int>");
    const utils::scoped_link job =
        spawn(program.bus(), std::move(work), [&program](finished<T> outcome) {
            try {
                if constexpr (std::is_void_v<T>) {
                    outcome.get();
                    program.stop();
                } else {
                    program.stop(outcome.get());
                }
            } catch (const std::exception& thrown) {
                program.fail(thrown.what());
            }
        });
    return program.run();
}

#endif

} // namespace tarn::ext
