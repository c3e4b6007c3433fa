/// tarn::ext::service: publishes an object whose methods are plain functions.
#pragma once

#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/detail/method.h"
#include "tarn/ext/mismatch.h"
#include "tarn/ext/notify.h"
#include "tarn/ext/responder.h"
#include "tarn/ext/task.h"
#include "tarn/link.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>

namespace tarn::ext {

namespace detail {

/// The working part of a service. The client's handlers refer to it weakly.
class service_core : public std::enable_shared_from_this<service_core> {
public:
    using exception_handler = std::function<void(const std::string&, const std::exception_ptr&)>;

    service_core(client& bus, std::string name)
        : bus_(bus)
        , name_(std::move(name)) {}
    service_core(const service_core&) = delete;
    service_core& operator=(const service_core&) = delete;

    // Before publish() only, by one thread at a time.
    void add_method(const std::string& name, client::method_handler handler,
                    client::method_policy policy) {
        check_unpublished();
        methods_.insert_or_assign(name, std::pair(std::move(handler), std::move(policy)));
    }
    void set_on_published(client::completion_handler handler) {
        check_unpublished();
        on_published_ = std::move(handler);
    }
    void set_on_exception(exception_handler handler) {
        check_unpublished();
        on_exception_ = std::move(handler);
    }

    void set_on_subscribers(tarn::bus::subscribers_handler handler) {
        check_unpublished();
        on_subscribers_ = std::move(handler);
    }

    void publish() {
        check_unpublished();
        published_ = true;
        if (on_subscribers_) {
            subscribers_ =
                bus_.get_bus().on_subscribers(name_, [weak = weak_from_this()](bool some) {
                    if (const auto self = weak.lock(); self && !self->closed()) {
                        self->on_subscribers_(some);
                    }
                });
        }
        states_ = bus_.notify_on_state_change([weak = weak_from_this()](client::state now) {
            if (const auto self = weak.lock()) {
                self->follow(now);
            }
        });
        if (bus_.is_active()) {
            follow(client::state::connected);
        }
    }

    /// Withdraws the object. Any thread, once. The client's operations are called with the lock
    /// held: none of them calls a handler.
    void close() {
        std::map<const void*, utils::link> tasks;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            closed_ = true;
            tasks.swap(tasks_);
            states_.release();
            subscribers_.release();
        }
        // Before the object goes, since the bus passes on no answer of it then. Without the lock,
        // since the frames that are destroyed may do anything.
        for (auto& [call, link] : tasks) {
            link.release();
        }
        const std::lock_guard<std::mutex> guard(lock_);
        if (added_) {
            bus_.del_object(name_, true, {});
        }
    }

    bool closed() {
        const std::lock_guard<std::mutex> guard(lock_);
        return closed_;
    }

    client& bus() { return bus_; }
    const std::string& name() const { return name_; }

    /// Answers a call whose function threw the exception that is being handled.
    void answer_exception(const std::string& method, pending_answer& call) const {
        try {
            throw;
        } catch (const std::system_error& thrown) {
            if (thrown.code().category() == error::msg_category::get_inst()) {
                return call.respond(thrown.code()); // meant for the caller
            }
        } catch (...) { // NOLINT(bugprone-empty-catch): told below
        }
        call.respond(error::msg::unknown_error);
        if (on_exception_) {
            on_exception_(method, std::current_exception());
        }
    }

    /// Holds the link of a task that serves a call, so that it ends with the service. For
    /// task_holder, which is `holder`.
    void hold(const void* holder, const utils::link& link) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (!closed_) {
                tasks_.emplace(holder, link);
                return;
            }
        }
        utils::link(link).release();
    }
    void forget(const void* holder) {
        const std::lock_guard<std::mutex> guard(lock_);
        tasks_.erase(holder);
    }

private:
    void check_unpublished() const {
        if (published_) {
            throw std::logic_error("tarn::ext::service: " + name_ + " is published already");
        }
    }

    /// The thread that changes the state, or publishes.
    void follow(client::state now) {
        const std::lock_guard<std::mutex> guard(lock_);
        if (closed_) {
            return;
        }
        if (now != client::state::connected) {
            added_ = false;
        } else if (!added_) {
            bus_.add_object(
                name_, methods_,
                [weak = weak_from_this(), number = ++addition_](const std::error_code& outcome) {
                    if (const auto self = weak.lock()) {
                        self->added(number, outcome);
                    }
                });
            added_ = true;
        }
    }

    void added(unsigned long number, const std::error_code& outcome) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (closed_) {
                return;
            }
            if (outcome && number == addition_) {
                added_ = false; // the name may be another's, which close() must not withdraw
            }
        }
        if (on_published_) {
            on_published_(outcome);
        }
    }

    client& bus_;
    const std::string name_;
    // Not changed once the service is published.
    client::method_map methods_;
    client::completion_handler on_published_;
    exception_handler on_exception_;
    tarn::bus::subscribers_handler on_subscribers_;
    bool published_ = false;

    std::mutex lock_; ///< guards what follows
    utils::link states_;
    utils::link subscribers_;
    std::map<const void*, utils::link> tasks_;
    unsigned long addition_ = 0; ///< the number of the last registration
    bool added_ = false;         ///< registered, or about to be, on this connection
    bool closed_ = false;
};

/// Belongs to a task that serves a call: the service holds the task until this goes, whether the
/// task has come to its end or was dropped.
class task_holder {
public:
    explicit task_holder(std::weak_ptr<service_core> service)
        : service_(std::move(service)) {}
    task_holder(const task_holder&) = delete;
    task_holder& operator=(const task_holder&) = delete;
    ~task_holder() {
        if (const auto service = service_.lock()) {
            service->forget(this);
        }
    }

    void hold(const utils::link& link) const {
        if (const auto service = service_.lock()) {
            service->hold(this, link);
        }
    }

private:
    const std::weak_ptr<service_core> service_;
};

/// One method: a function, and how its arguments are read.
template <class F, class Read>
class method : public std::enable_shared_from_this<method<F, Read>> {
public:
    method(std::weak_ptr<service_core> service, std::string name, F function, Read read)
        : service_(std::move(service))
        , name_(std::move(name))
        , function_(std::move(function))
        , read_(std::move(read)) {}

    void serve(const std::shared_ptr<client::exchange_ctx>& context) {
        const auto service = service_.lock();
        if (!service || service->closed()) {
            return context->respond(error::msg::not_found);
        }
        const auto call = std::make_shared<pending_answer>(context);
        std::exception_ptr passed;
        try {
            passed = serve(*service, call, std::move(context->args));
        } catch (...) {
            service->answer_exception(name_, *call);
        }
        if (passed) {
            std::rethrow_exception(passed);
        }
    }

private:
    using returned = return_of<F>;

    /// Throws what the function throws; returns what on_exception() threw, which is to pass.
    std::exception_ptr serve(service_core& service, const std::shared_ptr<pending_answer>& call,
                             blob::table&& fields) {
        // Only a mismatch of these is the caller's mistake.
        std::optional<decltype(read_(std::move(fields)))> values;
        try {
            values.emplace(read_(std::move(fields)));
        } catch (const mismatch&) {
            call->respond(error::msg::invalid_argument);
            return {};
        }
        return std::apply([&](auto&... value) { return run(service, call, value...); }, *values);
    }

    template <class... T>
    std::exception_ptr run([[maybe_unused]] service_core& service,
                           const std::shared_ptr<pending_answer>& call, T&... values) {
        if constexpr (parameters_of<F>::answers_later()) {
            static_assert(std::is_void_v<returned>,
                          "a method with a responder answers through it and returns nothing");
            function_(std::move(values)..., parameter_of<F, sizeof...(T)>(call));
        } else if constexpr (std::is_void_v<returned>) {
            function_(std::move(values)...);
            call->respond(error::msg::success);
        } else if constexpr (is_task<returned>) {
            return run_task(service, call, function_(std::move(values)...));
        } else {
            answer_with(*call, function_(std::move(values)...));
        }
        return {};
    }

#if defined(__cpp_impl_coroutine)
    template <class T>
    std::exception_ptr run_task(service_core& service, const std::shared_ptr<pending_answer>& call,
                                task<T>&& body) {
        // The handler owns the function, to whose captures the frame may refer.
        const auto holder = std::make_shared<task_holder>(service_);
        auto on_done = [self = this->shared_from_this(), call, holder](finished<T> outcome) {
            const auto owner = self->service_.lock();
            if (!owner) {
                return; // the call is answered with unknown_error
            }
            try {
                if constexpr (std::is_void_v<T>) {
                    outcome.get();
                    call->respond(error::msg::success);
                } else {
                    answer_with(*call, outcome.get());
                }
            } catch (...) {
                owner->answer_exception(self->name_, *call);
            }
        };
        const auto run = std::make_shared<spawned<T>>(service.bus().get_event_loop(),
                                                      std::move(body), std::move(on_done));
        holder->hold(link_to(run));
        try {
            run->start();
        } catch (...) {
            return std::current_exception(); // of on_done, which has answered
        }
        return {};
    }
#endif

    const std::weak_ptr<service_core> service_;
    const std::string name_;
    F function_;
    const Read read_;
};

} // namespace detail

/// An object on the bus whose methods are functions:
///
///     tarn::ext::service calculator(bus, "calculator");
///     calculator.method("add", {"a", "b"}, [](int a, int b) { return a + b; });
///     calculator.publish();
///
/// It is published when the client is connected, and again on every new connection, until this
/// object goes. Then tasks that still serve calls are ended, which their callers see as
/// msg::unknown_error, the object is withdrawn, and calls that come later are answered with
/// msg::not_found. What a responder answers afterwards is lost: its caller waits for its own time
/// limit. Destroyed on the loop's thread, no function of it is called afterwards; destroyed on
/// another, one that has begun on the loop may still be running.
///
/// Thread: made and set up on any one thread; publish() and the destructor on any as well, while
/// connections come and go. The functions are called on the application's loop.
class service {
public:
    /// Prepares an object called `name`. Nothing is published before publish().
    service(client& bus, std::string name)
        : core_(std::make_shared<detail::service_core>(bus, std::move(name))) {}
    /// Takes over the object; `other` may only be assigned to or destroyed afterwards.
    service(service&& other) noexcept = default;
    /// Exchanges the objects of the two.
    service& operator=(service&& other) noexcept {
        std::swap(core_, other.core_);
        return *this;
    }
    ~service() {
        if (core_) {
            try {
                core_->close();
            } catch (...) { // NOLINT(bugprone-empty-catch)
                // No memory, or no loop: what is still published answers not_found.
            }
        }
    }

    /// Adds the method `name`, or replaces it. Each parameter of `function` is a field of the
    /// call's arguments, in the order of `fields`, read as convert.h says: integers of any width
    /// that hold the value, std::optional for a field that may be absent. Other fields are ignored.
    ///
    /// What `function` returns is the answer:
    ///  - nothing: success; a std::error_code: that status;
    ///  - what is written as a table (a structure of TARN_FIELDS, a blob::table, a reply, a map):
    ///    that table; any other value: a table with the one field "result"; a std::optional without
    ///    a value: no data;
    ///  - a result<T>: its value in this way, or its code;
    ///  - a task<T> (C++20): what it yields in the end, in this way.
    /// A function whose last parameter is a responder<T> returns nothing and answers through that.
    ///
    /// The policy that is published with the method is made from the parameters: an `int`, a
    /// `bool`, a text, bytes, lists and tables name their type; other numbers, and what is
    /// optional, name the unspecified type, since they arrive as integers of several widths. There
    /// is no policy where every field is optional, because a call without any arguments does not
    /// pass one.
    ///
    /// Thread: before publish(), the one that sets the service up.
    /// Handler: `function` is called on the loop once for each call.
    /// Errors: a field that is absent or is no T is answered with msg::invalid_argument, and
    /// `function` is not called. Neither is it for a call without any arguments where there is a
    /// policy: the client answers that with msg::unknown_error. What `function` throws does not
    /// leave through the loop. It is answered with msg::unknown_error and goes to on_exception(); a
    /// std::system_error with a code of error::msg is answered with that code, and goes no further.
    /// Throws std::logic_error after publish().
    template <std::size_t N, class F>
    service& method(const std::string& name, const char* const (&fields)[N], F function) {
        static_assert(detail::parameters_of<F>::count == N,
                      "a method has one parameter for each field that is named, and then perhaps a "
                      "responder");
        std::array<std::string, N> names;
        std::copy(std::begin(fields), std::end(fields), names.begin());
        const client::method_policy policy = detail::policy_of<F>(names);
        return add(name, std::move(function), policy,
                   [names = std::move(names)](blob::table&& arguments) {
                       return detail::read_arguments<F>(std::move(arguments), names);
                   });
    }

    /// The same for a function without parameters, or with one that is read from all arguments
    /// together: a structure of TARN_FIELDS, a reply, or a blob::table (which have no policy). A
    /// responder may follow here as well.
    template <class F>
    service& method(const std::string& name, F function) {
        constexpr std::size_t count = detail::parameters_of<F>::count;
        static_assert(count <= 1, "name the fields that belong to the parameters");
        if constexpr (count == 1) {
            static_assert(detail::is_whole<detail::parameter_of<F, 0>>,
                          "name the field that belongs to the parameter");
        }
        return add(
            name, std::move(function), detail::whole_policy<F>(),
            [](blob::table&& arguments) { return detail::read_whole<F>(std::move(arguments)); });
    }

    /// Sets the handler of each registration's outcome: success once other clients can see the
    /// object, or a code of client::add_object(). After a failure the next attempt is made on the
    /// next connection.
    /// Thread: before publish(), the one that sets the service up.
    /// Handler: once for each connection, on the loop; after client::cancel() on its thread.
    /// Errors: throws std::logic_error after publish().
    service& on_published(client::completion_handler handler) {
        core_->set_on_published(std::move(handler));
        return *this;
    }

    /// Sets the handler of what a method threw: `void(const std::string& method, const
    /// std::exception_ptr& thrown)`. Without it only the caller gets to know, as
    /// msg::unknown_error. Thread: before publish(), the one that sets the service up. Handler: on
    /// the loop, once for each exception. What it throws itself passes through the loop. Errors:
    /// throws std::logic_error after publish().
    service&
    on_exception(std::function<void(const std::string&, const std::exception_ptr&)> handler) {
        core_->set_on_exception(std::move(handler));
        return *this;
    }

    /// Sets the handler that is notified whether the object has subscribers: from the first that
    /// comes to the last that goes, through reconnections.
    /// Thread: before publish(), the one that sets the service up.
    /// Handler: for every change, on the loop, beginning with true; see bus::on_subscribers().
    /// Errors: throws std::logic_error after publish().
    service& on_subscribers(tarn::bus::subscribers_handler handler) {
        core_->set_on_subscribers(std::move(handler));
        return *this;
    }

    /// Notifies the subscribers of the object, as ext::notify() does with the arguments after the
    /// name of the object: `notify("opened", door, nullptr)`, or with a time limit and a handler
    /// that gets their answers.
    ///
    /// Thread: any.
    /// Handler: see ext::notify().
    /// Errors: as ext::notify(): msg::not_found while the object is not on the bus.
    template <class Data, class Handler>
    utils::link notify(const std::string& method, const Data& data, Handler&& handler) {
        return ext::notify(core_->bus(), core_->name(), method, data,
                           std::forward<Handler>(handler));
    }
    /// The same with a table in braces.
    template <class Handler>
    utils::link notify(const std::string& method, const blob::table& data, Handler&& handler) {
        return ext::notify(core_->bus(), core_->name(), method, data,
                           std::forward<Handler>(handler));
    }
    /// The same, waiting for the answers.
    template <class T = detail::deduced, class Data, class Rep, class Period, class Handler>
    utils::link notify(const std::string& method, const Data& data,
                       const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
        return ext::notify<T>(core_->bus(), core_->name(), method, data, limit,
                              std::forward<Handler>(handler));
    }
    /// The same with a table in braces.
    template <class T = detail::deduced, class Rep, class Period, class Handler>
    utils::link notify(const std::string& method, const blob::table& data,
                       const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
        return ext::notify<T>(core_->bus(), core_->name(), method, data, limit,
                              std::forward<Handler>(handler));
    }

    /// Publishes the object, now or as soon as the client is connected, and on every connection
    /// that follows. Last, and once.
    /// Thread: any.
    /// Handler: see on_published().
    /// Errors: throws std::logic_error when called again, and what client::add_object() throws.
    void publish() { core_->publish(); }

private:
    template <class F, class Read>
    service& add(const std::string& name, F&& function, const client::method_policy& policy,
                 Read read) {
        const auto served = std::make_shared<detail::method<std::decay_t<F>, Read>>(
            core_, name, std::forward<F>(function), std::move(read));
        core_->add_method(
            name,
            [served](const std::shared_ptr<client::exchange_ctx>& call) { served->serve(call); },
            policy);
        return *this;
    }

    std::shared_ptr<detail::service_core> core_;
};

} // namespace tarn::ext
