/// tarn::ext::subscribe: notifications whose data, and whose answers, are C++ types.
#pragma once

#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/detail/bus_data.h"
#include "tarn/ext/detail/method.h"
#include "tarn/ext/mismatch.h"
#include "tarn/ext/responder.h"
#include "tarn/link.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarn::ext {

/// How subscribe() delivers: see tarn::bus::options.
struct subscribe_options : tarn::bus::options {
    /// Called on the loop instead of the handler with the method of a notification whose data are
    /// no T, and with what is wrong about them. Without it such notifications are ignored. A
    /// notifier that waits for an answer of the handler gets msg::invalid_argument either way.
    std::function<void(const std::string&, const mismatch&)> on_mismatch = {};
};

namespace detail {

/// Passes notifications to a handler, and its answers back.
template <class T, class Handler>
class notified {
    using later = responder_of_t<Handler>;
    static constexpr bool answers_later = is_responder<later>;
    template <class H, bool Later>
    struct returned {
        using type = std::invoke_result_t<H&, const std::string&, T>;
    };
    template <class H>
    struct returned<H, true> {
        using type = std::invoke_result_t<H&, const std::string&, T, later>;
    };

public:
    using answer = typename returned<Handler, answers_later>::type;
    static_assert(!is_task<answer>, "a handler of notifications is no task: it may take a "
                                    "tarn::ext::responder and start one");
    static_assert(!answers_later || std::is_void_v<answer>,
                  "a handler with a responder answers through it and returns nothing");
    /// Whether notifiers that wait for an answer get the handler's.
    static constexpr bool answers = answers_later || !std::is_void_v<answer>;

    template <class H>
    notified(H&& handler, std::function<void(const std::string&, const mismatch&)> on_mismatch)
        : handler_(std::forward<H>(handler))
        , on_mismatch_(std::move(on_mismatch)) {}

    void operator()(const std::string& method,
                    const std::shared_ptr<client::exchange_ctx>& context) {
        std::optional<T> data;
        try {
            data.emplace(read_table<T>(context->args));
        } catch (const mismatch& wrong) {
            context->respond(error::msg::invalid_argument);
            if (on_mismatch_) {
                on_mismatch_(method, wrong);
            }
            return;
        }
        if constexpr (!answers) {
            handler_(method, *std::move(data));
        } else {
            const auto call = std::make_shared<pending_answer>(context);
            try {
                serve(method, call, *std::move(data));
            } catch (const std::system_error& thrown) {
                if (thrown.code().category() != error::msg_category::get_inst()) {
                    throw;
                }
                call->respond(thrown.code()); // meant for the notifier
            }
        }
    }

private:
    void serve(const std::string& method, const std::shared_ptr<pending_answer>& call, T&& data) {
        if constexpr (answers_later) {
            handler_(method, std::move(data), later(call));
        } else {
            answer_with(*call, handler_(method, std::move(data)));
        }
    }

    Handler handler_;
    const std::function<void(const std::string&, const mismatch&)> on_mismatch_;
};

template <class T, class Handler>
utils::link start_subscription(client& bus, const std::string& path, Handler&& handler,
                               const tarn::bus::subscription_handler& on_change,
                               const subscribe_options& how) {
    using receiver = notified<T, std::decay_t<Handler>>;
    const auto kept = std::make_shared<receiver>(std::forward<Handler>(handler), how.on_mismatch);
    tarn::bus::subscribe_options options;
    static_cast<tarn::bus::options&>(options) = how;
    options.answers = receiver::answers;
    return bus.get_bus().subscribe(
        path,
        [kept](const std::string& method, const std::shared_ptr<client::exchange_ctx>& context)
            -> std::optional<std::error_code> {
            (*kept)(method, context);
            return std::nullopt; // answered, or to be answered by a responder
        },
        on_change, options);
}

} // namespace detail

/// Subscribes to the notifications of the object at `path`, as bus::subscribe() does, until the
/// returned link is released or destroyed: at once, when the object appears, and again after it or
/// the connection was lost.
///
/// `handler` is called with the name of the notification and its data, a T as for listen(). What it
/// returns is the answer for a notifier that waits for one, as for service::method():
///  - nothing: every notifier is answered with success before the handler is called;
///  - a std::error_code, what is written as a table, any other value, a std::optional, a result<R>;
///  - nothing, and its last parameter is a responder<R>, which answers later.
///
/// Thread: any.
/// Handler: `handler`, R(const std::string& method, T data), for every notification, and
///   `on_change` for every change of the subscription, both on the application's loop, in order.
///   `handler` may be movable only.
/// Errors: see subscribe_options::on_mismatch, bus::subscription_handler and
///   bus::options::on_registered. A std::system_error with a code of error::msg that an answering
///   handler throws is the answer; any other exception is answered with msg::unknown_error and
///   passes through the loop. Throws what client::get_bus() throws.
template <class T = detail::deduced, class Handler>
utils::scoped_link subscribe(client& bus, const std::string& path, Handler&& handler,
                             const tarn::bus::subscription_handler& on_change = {},
                             const subscribe_options& how = {}) {
    return detail::start_subscription<detail::data_of_t<T, Handler>>(
        bus, path, std::forward<Handler>(handler), on_change, how);
}

} // namespace tarn::ext
