/// tarn::ext::call: a call whose arguments and result are C++ types.
#pragma once

#include "tarn/client.h"
#include "tarn/ext/detail/decode.h"
#include "tarn/ext/detail/loop_thread.h"
#include "tarn/ext/detail/whole_seconds.h"
#include "tarn/ext/result.h"
#include "tarn/link.h"

#include <chrono>
#include <list>
#include <string>
#include <system_error>
#include <utility>

namespace tarn::ext {

/// Calls `method` of the object published under `path`, as client::invoke() does.
///
/// `args` is a table (`{{"msg", "hello"}, {"n", 42}}`), or anything that is written as one: a
/// structure described with TARN_FIELDS, a std::map, a reply. `limit` is a duration of any unit. It
/// is rounded up to whole seconds, which the client counts in: 1500 ms are 2 s. Zero means no
/// limit, and a negative one expires at once.
///
/// The result is a T: a reply, a structure, or nothing (`void`) where only success counts. T is
/// deduced from the parameter of `handler`; for a generic lambda it is given (`call<T>(...)`), or a
/// reply. Of several replies of the callee the first counts, and none at all is an empty table.
///
/// The link is active while the call is pending. Releasing it ends the call: `handler` is not
/// started any more.
///
/// Thread: any.
/// Handler: once, on the application's event loop, never inside this call. It may be movable only.
///   As an argument of type `result<T>` or `const result<T>&` it gets the value, or
///     msg::parse_error  the reply is not a T: message() names the field;
///     msg::no_memory    memory ran out while the reply was read;
///     any other code    as from client::invoke().
/// Errors: throws what client::invoke() throws, and what writing `args` throws; `handler` is not
///   called then.
template <class T = detail::deduced, class Rep, class Period, class Handler>
utils::link call(client& bus, const std::string& path, const std::string& method,
                 const blob::table& args, const std::chrono::duration<Rep, Period>& limit,
                 Handler&& handler) {
    using value = detail::wanted_t<T, Handler>;
    const auto kept = detail::keep_handler<value>(std::forward<Handler>(handler));
    return bus.invoke(
        path, method, args,
        [loop = detail::loop_thread::of(bus), kept](const std::list<blob::attr>& replies,
                                                    const std::error_code& status) {
            // cancel() ends calls on its caller's thread.
            if (loop && status != error::generic::aborted) {
                loop->note();
            }
            (*kept)(detail::decode<value>(replies, status));
        },
        detail::whole_seconds(limit));
}

/// The same with arguments of any type that is written as a table.
template <class T = detail::deduced, class Args, class Rep, class Period, class Handler>
utils::link call(client& bus, const std::string& path, const std::string& method, const Args& args,
                 const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
    return call<T>(bus, path, method, detail::arguments(args), limit,
                   std::forward<Handler>(handler));
}

/// The same without arguments.
template <class T = detail::deduced, class Rep, class Period, class Handler>
utils::link call(client& bus, const std::string& path, const std::string& method,
                 const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
    return call<T>(bus, path, method, blob::table(), limit, std::forward<Handler>(handler));
}

} // namespace tarn::ext
