/// tarn::ext::notify: notifications of an object's subscribers, and their answers, as C++ types.
#pragma once

#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/detail/bus_data.h"
#include "tarn/ext/detail/decode.h"
#include "tarn/ext/detail/whole_seconds.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <chrono>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarn::ext {

/// The subscribers' answers to one notification, one element each, in no particular order. After a
/// time limit those that have sent nothing have no element; one that has sent replies but no status
/// has msg::timeout.
template <class T = reply>
using answers = std::vector<result<T>>;

namespace detail {

/// From the parameter of a handler, a result<answers<T>>, to T.
template <class Value>
struct answers_parameter;
template <class T>
struct answers_parameter<std::vector<result<T>>> {
    using type = T;
};

template <class T, class Handler, class = void>
struct answer_of_handler {
    using type = std::conditional_t<std::is_same_v<T, deduced>, reply, T>;
};
template <class Handler>
struct answer_of_handler<deduced, Handler,
                         std::void_t<typename misc::callable_traits<Handler>::type>>
    : answers_parameter<wanted_t<deduced, Handler>> {};

template <class T>
result<answers<T>> decode_answers(const std::vector<tarn::bus::notify_answer>& arrived,
                                  const std::error_code& outcome) {
    if (outcome && outcome != error::msg::timeout) {
        return outcome;
    }
    answers<T> all;
    all.reserve(arrived.size());
    for (const auto& each : arrived) {
        all.push_back(decode<T>(each.replies, each.status));
    }
    return all;
}

} // namespace detail

/// Notifies the subscribers of the object `name` that this client publishes, as bus::notify() does,
/// and does not wait for them. `data` is a table, or anything that is written as one. The link is
/// active while the report is pending; releasing it suppresses the report.
///
/// Thread: any.
/// Handler: `handler`, void(result<void>), once on the application's loop; nullptr for none. The
///   codes are those of bus::notify().
/// Errors: throws what client::get_bus() and writing `data` throw.
template <class Handler>
utils::link notify(client& bus, const std::string& name, const std::string& method,
                   const blob::table& data, Handler&& handler) {
    const auto kept = detail::keep_optional_handler<void>(std::forward<Handler>(handler));
    client::completion_handler report;
    if (kept) {
        report = [kept](const std::error_code& outcome) {
            (*kept)(result<void>(outcome));
        };
    }
    return bus.get_bus().notify(name, method, data, report);
}

/// The same with data of any type that is written as a table.
template <class Data, class Handler>
utils::link notify(client& bus, const std::string& name, const std::string& method,
                   const Data& data, Handler&& handler) {
    return notify(bus, name, method, detail::arguments(data), std::forward<Handler>(handler));
}

/// The same, waiting for the answers of all subscribers. `limit` is a duration of any unit, rounded
/// up to whole seconds. Zero means no limit, and a negative one expires at once.
///
/// An answer is a T: a reply, a structure, or nothing (`void`) where only success counts. T is
/// deduced from the parameter of `handler`; for a generic lambda it is given (`notify<T>(...)`), or
/// a reply. Of several replies of a subscriber the first counts, and none at all is an empty table.
///
/// Thread: any.
/// Handler: `handler`, void(result<answers<T>>), once on the application's loop. It may be movable
///   only. When `limit` passes first it still gets the answers: see answers. An answer that is no T
///   is an element with msg::parse_error. The codes are those of bus::notify() otherwise.
/// Errors: as above.
template <class T = detail::deduced, class Rep, class Period, class Handler>
utils::link notify(client& bus, const std::string& name, const std::string& method,
                   const blob::table& data, const std::chrono::duration<Rep, Period>& limit,
                   Handler&& handler) {
    using value = typename detail::answer_of_handler<T, std::decay_t<Handler>>::type;
    const auto kept = detail::keep_handler<answers<value>>(std::forward<Handler>(handler));
    return bus.get_bus().notify(name, method, data, detail::whole_seconds(limit),
                                [kept](const std::vector<tarn::bus::notify_answer>& arrived,
                                       const std::error_code& outcome) {
                                    (*kept)(detail::decode_answers<value>(arrived, outcome));
                                });
}

/// The same with data of any type that is written as a table.
template <class T = detail::deduced, class Data, class Rep, class Period, class Handler>
utils::link notify(client& bus, const std::string& name, const std::string& method,
                   const Data& data, const std::chrono::duration<Rep, Period>& limit,
                   Handler&& handler) {
    return notify<T>(bus, name, method, detail::arguments(data), limit,
                     std::forward<Handler>(handler));
}

} // namespace tarn::ext
