/// What tarn::ext makes of the data of events and notifications, and of the handlers that take it.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/ext/convert.h"
#include "tarn/ext/detail/decode.h"
#include "tarn/ext/fields.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/responder.h"
#include "tarn/misc/callable_traits.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace tarn::ext::detail {

/// The table as a T. Throws mismatch.
template <class T>
T read_table(const blob::table& fields) {
    if constexpr (has_fields<T>) {
        return read_fields<T>(fields);
    } else if constexpr (std::is_same_v<T, reply> || std::is_same_v<T, blob::table>) {
        return T(fields);
    } else {
        return convert<T>::read(blob::attr(fields));
    }
}

/// What a handler of named data takes: the name, the data as a T and perhaps something more; a
/// reply where the handler does not say it (a generic lambda).
template <class T, class Handler, class = void>
struct data_of {
    using type = std::conditional_t<std::is_same_v<T, deduced>, reply, T>;
};
template <class Signature>
struct data_parameter;
template <class R, class Name, class Data, class... More>
struct data_parameter<std::function<R(Name, Data, More...)>> {
    using type = std::decay_t<Data>;
};
template <class Handler>
struct data_of<deduced, Handler, std::void_t<typename misc::callable_traits<Handler>::type>>
    : data_parameter<typename misc::callable_traits<Handler>::type> {};
template <class T, class Handler>
using data_of_t = typename data_of<T, std::decay_t<Handler>>::type;

/// The last parameter of a handler if it is a responder, else void.
template <class Signature>
struct responder_parameter {
    using type = void;
};
template <class R, class Name, class Data, class Last>
struct responder_parameter<std::function<R(Name, Data, Last)>> {
    using type = std::decay_t<Last>;
};
template <class Handler, class = void>
struct responder_of {
    using type = void;
};
template <class Handler>
struct responder_of<Handler, std::void_t<typename misc::callable_traits<Handler>::type>>
    : responder_parameter<typename misc::callable_traits<Handler>::type> {};
template <class Handler>
using responder_of_t = typename responder_of<std::decay_t<Handler>>::type;

/// A handler of a result<T>, to be captured by what the bus is given; null for no handler, which is
/// said with nullptr. Shared, since the bus copies its handlers and this one may be movable only.
template <class T, class Handler>
auto keep_optional_handler(Handler&& handler) {
    using kept = std::decay_t<Handler>;
    if constexpr (std::is_same_v<kept, std::nullptr_t>) {
        return std::shared_ptr<std::function<void(result<T>)>>();
    } else {
        static_assert(std::is_invocable_v<kept&, result<T>>,
                      "the handler takes a tarn::ext::result of what is asked for, or is nullptr");
        return std::make_shared<kept>(std::forward<Handler>(handler));
    }
}

} // namespace tarn::ext::detail
