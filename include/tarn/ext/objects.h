/// tarn::ext::objects, wait_for and on_object: what is on the bus, with results and time limits of
/// any unit.
#pragma once

#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/ext/detail/bus_data.h"
#include "tarn/ext/detail/whole_seconds.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <chrono>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace tarn::ext {

/// What objects() finds.
using object_list = std::vector<tarn::bus::object_info>;

/// Looks up the objects whose path matches `pattern`, as bus::objects() does: exactly, or by what
/// precedes a `*` at its end. The link is active while the report is pending; releasing it
/// suppresses the report.
///
/// Thread: any.
/// Handler: `handler`, void(result<object_list>), once on the application's loop. It may be movable
///   only. No object is an empty list. The codes are those of bus::objects().
/// Errors: throws what client::get_bus() throws.
template <class Handler>
utils::link objects(client& bus, const std::string& pattern, Handler&& handler) {
    const auto kept = detail::keep_handler<object_list>(std::forward<Handler>(handler));
    return bus.get_bus().objects(
        pattern, [kept](const object_list& found, const std::error_code& status) {
            (*kept)(status ? result<object_list>(status) : result<object_list>(found));
        });
}

/// Waits until objects are published under all of `paths` at the same time, as bus::wait_for()
/// does: connected or not, and without calling them. `limit` is a duration of any unit, rounded up
/// to whole seconds. Zero means no limit, and a negative one expires at once. The link is active
/// while it waits; releasing it ends that.
///
/// Thread: any.
/// Handler: `handler`, void(result<void>), once on the application's loop. It may be movable only.
///   The codes are those of bus::wait_for(): msg::timeout when `limit` passed first.
/// Errors: throws what client::get_bus() throws.
template <class Rep, class Period, class Handler>
utils::link wait_for(client& bus, const std::vector<std::string>& paths,
                     const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
    const auto kept = detail::keep_handler<void>(std::forward<Handler>(handler));
    return bus.get_bus().wait_for(
        paths, detail::whole_seconds(limit),
        [kept](const std::error_code& status) { (*kept)(result<void>(status)); });
}

/// Follows the objects whose path matches `pattern`, as bus::on_object() does, until the returned
/// link is released or destroyed: those that are there, then every one that appears or goes.
///
/// Thread: any.
/// Handler: for every change, on the application's loop.
/// Errors: see bus::options::on_registered. Throws what client::get_bus() throws.
inline utils::scoped_link on_object(client& bus, const std::string& pattern,
                                    const tarn::bus::presence_handler& handler,
                                    const tarn::bus::options& how = {}) {
    return bus.get_bus().on_object(pattern, handler, how);
}

} // namespace tarn::ext
