/// tarn::ext::async_send_event, async_objects, async_wait_for and async_notify: what the bus
/// answers once, waited for on a thread that has nothing else to do.
#pragma once

#include "tarn/client.h"
#include "tarn/ext/detail/loop_thread.h"
#include "tarn/ext/events.h"
#include "tarn/ext/future.h"
#include "tarn/ext/notify.h"
#include "tarn/ext/objects.h"
#include "tarn/ext/reply.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tarn::ext {

namespace detail {

/// The future of what `start`, which is given a handler of a result<T>, begins.
template <class T, class Start>
future<T> future_of(const client& bus, const Start& start) {
    const auto state = std::make_shared<future_state<T>>(loop_thread::of(bus));
    return {state, start(future_setter<T>(state))};
}

} // namespace detail

/// As send_event(), but returns a future of the outcome. Destroying it before that gives up the
/// report, not the event.
///
/// Thread: any but that of the event loop, where the outcome cannot be waited for.
/// Errors: throws what send_event() throws.
template <class Data = blob::table>
future<void> async_send_event(client& bus, const std::string& id, const Data& data = {}) {
    return detail::future_of<void>(bus, [&](detail::future_setter<void> setter) {
        return send_event(bus, id, data, std::move(setter));
    });
}

/// As objects(), but returns a future of what is found.
///
/// Thread: any but that of the event loop, where the outcome cannot be waited for.
/// Errors: throws what objects() throws.
inline future<object_list> async_objects(client& bus, const std::string& pattern) {
    return detail::future_of<object_list>(bus, [&](detail::future_setter<object_list> setter) {
        return objects(bus, pattern, std::move(setter));
    });
}

/// As wait_for(), but returns a future of the outcome. The future ends the wait when it is
/// destroyed before that.
///
/// Thread: any but that of the event loop, where the outcome cannot be waited for.
/// Errors: throws what wait_for() throws.
template <class Rep, class Period>
future<void> async_wait_for(client& bus, const std::vector<std::string>& paths,
                            const std::chrono::duration<Rep, Period>& limit) {
    return detail::future_of<void>(bus, [&](detail::future_setter<void> setter) {
        return wait_for(bus, paths, limit, std::move(setter));
    });
}

/// As notify() with answers, but returns a future of them. T is a reply unless it is given.
/// Destroying it before that gives up the answers, not the notification.
///
/// Thread: any but that of the event loop, where the outcome cannot be waited for.
/// Errors: throws what notify() throws.
template <class T = reply, class Data = blob::table, class Rep, class Period>
future<answers<T>> async_notify(client& bus, const std::string& name, const std::string& method,
                                const Data& data, const std::chrono::duration<Rep, Period>& limit) {
    return detail::future_of<answers<T>>(bus, [&](detail::future_setter<answers<T>> setter) {
        return notify<T>(bus, name, method, data, limit, std::move(setter));
    });
}

} // namespace tarn::ext
