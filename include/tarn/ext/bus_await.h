/// What a task can ask of the bus with co_await beside calls: an event sent, a look-up, a wait for
/// objects, a notification. For programs in C++20; a compiler without coroutines, or one in C++17,
/// finds nothing here.
#pragma once

#include "tarn/ext/await.h"

#if defined(__cpp_impl_coroutine)

#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/detail/whole_seconds.h"
#include "tarn/ext/events.h"
#include "tarn/ext/fields.h"
#include "tarn/ext/notify.h"
#include "tarn/ext/objects.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <chrono>
#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarn::ext {

namespace detail {

/// Waits for the one outcome of what `start` begins.
template <class T>
class [[nodiscard]] outcome_awaitable : awaitable {
public:
    using handler = std::function<void(result<T>)>;

    explicit outcome_awaitable(std::function<utils::link(const handler&)> start)
        : start_(std::move(start)) {}

    bool await_ready() const noexcept { return false; }

    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> here) {
        link_ = start_([run = run_of(here), here, outcome = outcome_](result<T> got) {
            // The thread that cancels may be any.
            const bool elsewhere = got.error() == error::generic::aborted;
            outcome->emplace(std::move(got));
            if (elsewhere) {
                run->post([run, here] { run->resume(here); });
            } else {
                run->resume(here);
            }
        });
    }

    result<T> await_resume() { return std::move(**outcome_); }

private:
    const std::function<utils::link(const handler&)> start_;
    /// Shared with the handler: it may be writing on the loop while the frame is destroyed
    /// elsewhere.
    const std::shared_ptr<std::optional<result<T>>> outcome_ =
        std::make_shared<std::optional<result<T>>>();
    utils::scoped_link link_;
};

} // namespace detail

/// `co_await send_event(bus, id, data)` sends an event and yields a result<void>: success when the
/// daemon has taken it. The event is sent when this is awaited.
/// Thread: in a task.
/// Errors: the codes of bus::send_event(); throws what client::get_bus() throws.
inline detail::outcome_awaitable<void> send_event(client& bus, std::string id,
                                                  blob::table data = {}) {
    return detail::outcome_awaitable<void>(
        [&bus, id = std::move(id), data = std::move(data)](const auto& handler) {
            return send_event(bus, id, data, handler);
        });
}

/// The same with a structure of TARN_FIELDS as the data.
template <class Data, std::enable_if_t<detail::has_fields<Data>, int> = 0>
detail::outcome_awaitable<void> send_event(client& bus, std::string id, const Data& data) {
    return send_event(bus, std::move(id), detail::write_fields(data));
}

/// `co_await objects(bus, pattern)` looks up what is there and yields a result<object_list>.
/// Thread: in a task.
/// Errors: the codes of bus::objects(); throws what client::get_bus() throws.
inline detail::outcome_awaitable<object_list> objects(client& bus, std::string pattern) {
    return detail::outcome_awaitable<object_list>(
        [&bus, pattern = std::move(pattern)](const auto& handler) {
            return objects(bus, pattern, handler);
        });
}

/// `co_await wait_for(bus, paths, limit)` waits until all of them are there at once and yields a
/// result<void>. `limit` is rounded up to whole seconds; zero, which is the default, means no
/// limit.
/// Thread: in a task.
/// Errors: the codes of bus::wait_for(); throws what client::get_bus() throws.
inline detail::outcome_awaitable<void> wait_for(client& bus, std::vector<std::string> paths,
                                                std::chrono::milliseconds limit = {}) {
    return detail::outcome_awaitable<void>(
        [&bus, paths = std::move(paths), limit](const auto& handler) {
            return wait_for(bus, paths, limit, handler);
        });
}

/// `co_await notify(bus, name, method, data)` notifies the subscribers of an own object and yields
/// a result<void>, without waiting for them. Thread: in a task. Errors: the codes of bus::notify();
/// throws what client::get_bus() throws.
inline detail::outcome_awaitable<void> notify(client& bus, std::string name, std::string method,
                                              blob::table data = {}) {
    return detail::outcome_awaitable<void>(
        [&bus, name = std::move(name), method = std::move(method), data = std::move(data)](
            const auto& handler) { return notify(bus, name, method, data, handler); });
}

/// The same with a structure of TARN_FIELDS as the data.
template <class Data, std::enable_if_t<detail::has_fields<Data>, int> = 0>
detail::outcome_awaitable<void> notify(client& bus, std::string name, std::string method,
                                       const Data& data) {
    return notify(bus, std::move(name), std::move(method), detail::write_fields(data));
}

/// `co_await notify<T>(bus, name, method, data, limit)` waits for the answers and yields a
/// result<answers<T>>. `limit` is rounded up to whole seconds; zero means no limit.
/// Thread: in a task.
/// Errors: the codes of bus::notify(), but msg::timeout, after which it yields the answers so far;
/// throws what client::get_bus() throws.
template <class T = reply>
detail::outcome_awaitable<answers<T>> notify(client& bus, std::string name, std::string method,
                                             blob::table data, std::chrono::milliseconds limit) {
    return detail::outcome_awaitable<answers<T>>(
        [&bus, name = std::move(name), method = std::move(method), data = std::move(data), limit](
            const auto& handler) { return notify<T>(bus, name, method, data, limit, handler); });
}

/// The same with a structure of TARN_FIELDS as the data.
template <class T = reply, class Data, std::enable_if_t<detail::has_fields<Data>, int> = 0>
detail::outcome_awaitable<answers<T>> notify(client& bus, std::string name, std::string method,
                                             const Data& data, std::chrono::milliseconds limit) {
    return notify<T>(bus, std::move(name), std::move(method), detail::write_fields(data), limit);
}

} // namespace tarn::ext

#endif
