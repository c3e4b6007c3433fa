/// tarn::ext::listen and send_event: events whose data are C++ types.
#pragma once

#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/ext/detail/bus_data.h"
#include "tarn/ext/detail/decode.h"
#include "tarn/ext/mismatch.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarn::ext {

/// How listen() delivers: see tarn::bus::options.
struct listen_options : tarn::bus::options {
    /// Called on the loop instead of the handler with the id of an event whose data are no T, and
    /// with what is wrong about them. Without it such events are ignored.
    std::function<void(const std::string&, const mismatch&)> on_mismatch = {};
};

namespace detail {

template <class T, class Handler>
utils::link start_listening(client& bus, const std::string& pattern, Handler&& handler,
                            const listen_options& how) {
    static_assert(std::is_invocable_v<std::decay_t<Handler>&, const std::string&, T>,
                  "the handler of events takes an id and the data");
    const auto kept = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
    return bus.get_bus().listen(
        pattern,
        [kept, on_mismatch = how.on_mismatch](const std::string& id,
                                              const tarn::bus::table& fields) {
            std::optional<T> data;
            try {
                data.emplace(read_table<T>(fields));
            } catch (const mismatch& wrong) {
                if (on_mismatch) {
                    on_mismatch(id, wrong);
                }
                return;
            }
            (*kept)(id, *std::move(data));
        },
        how);
}

} // namespace detail

/// Listens to the events whose id matches `pattern`, as bus::listen() does, until the returned link
/// is released or destroyed; connected or not, and again after every reconnection.
///
/// The data are a T: a reply, a structure of TARN_FIELDS, a std::map, a blob::table. T is deduced
/// from the second parameter of `handler`; for a generic lambda it is given (`listen<T>(...)`), or
/// a reply. What an event holds beside the fields of a structure is ignored.
///
/// Thread: any.
/// Handler: `handler`, void(const std::string& id, T data), for every event, on the application's
///   loop. It may be movable only.
/// Errors: see listen_options::on_mismatch and bus::options::on_registered. Throws what
///   client::get_bus() throws.
template <class T = detail::deduced, class Handler>
utils::scoped_link listen(client& bus, const std::string& pattern, Handler&& handler,
                          const listen_options& how = {}) {
    return detail::start_listening<detail::data_of_t<T, Handler>>(
        bus, pattern, std::forward<Handler>(handler), how);
}

/// Sends an event to the listeners of other processes, as bus::send_event() does. `data` is a
/// table, or anything that is written as one. The link is active while the report is pending;
/// releasing it suppresses the report.
///
/// Thread: any.
/// Handler: `handler`, void(result<void>), once on the application's loop; nullptr for none. The
///   codes are those of bus::send_event().
/// Errors: throws what client::get_bus() and writing `data` throw.
template <class Handler>
utils::link send_event(client& bus, const std::string& id, const blob::table& data,
                       Handler&& handler) {
    const auto kept = detail::keep_optional_handler<void>(std::forward<Handler>(handler));
    client::completion_handler report;
    if (kept) {
        report = [kept](const std::error_code& outcome) {
            (*kept)(result<void>(outcome));
        };
    }
    return bus.get_bus().send_event(id, data, report);
}

/// The same with data of any type that is written as a table.
template <class Data, class Handler>
utils::link send_event(client& bus, const std::string& id, const Data& data, Handler&& handler) {
    return send_event(bus, id, detail::arguments(data), std::forward<Handler>(handler));
}

} // namespace tarn::ext
