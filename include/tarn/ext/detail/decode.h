/// What tarn::ext makes of the arguments of a call before it, and of its replies after it.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/error.h"
#include "tarn/ext/convert.h"
#include "tarn/ext/fields.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/result.h"
#include "tarn/misc/callable_traits.h"

#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarn::ext::detail {

/// Stands for the type of a result that is to be deduced from its handler.
struct deduced {};

/// From the parameter of a handler to the type of its result.
template <class T>
struct result_parameter {
    static_assert(is_result<T>, "the handler of a call takes a tarn::ext::result");
    using type = typename T::value_type;
};

template <class Signature>
struct handled;
template <class R, class Parameter>
struct handled<std::function<R(Parameter)>> : result_parameter<std::decay_t<Parameter>> {};

/// What the result of a call holds: T if it is given, else what the handler takes, and a reply
/// where the handler does not say it (a generic lambda).
template <class T, class Handler, class = void>
struct wanted {
    using type = std::conditional_t<std::is_same_v<T, deduced>, reply, T>;
};
template <class Handler>
struct wanted<deduced, Handler, std::void_t<typename misc::callable_traits<Handler>::type>>
    : handled<typename misc::callable_traits<Handler>::type> {};
template <class T, class Handler>
using wanted_t = typename wanted<T, std::decay_t<Handler>>::type;

/// The arguments of a call.
template <class Args>
blob::table arguments(const Args& args) {
    if constexpr (std::is_same_v<Args, blob::table>) {
        return args;
    } else if constexpr (has_fields<Args>) {
        return write_fields(args);
    } else {
        blob::attr value = convert<Args>::write(args);
        if (value.type() != typeid(blob::table)) {
            throw std::invalid_argument("tarn::ext: the arguments of a call are " +
                                        words_for(value) + ", not a table");
        }
        return std::move(value.get<blob::table>());
    }
}

/// The outcome of a call as a T. Of several replies the first counts; none is an empty table.
template <class T>
result<T> decode(const std::list<blob::attr>& replies, const std::error_code& status) {
    if (status) {
        return status;
    }
    if constexpr (std::is_void_v<T>) {
        return {};
    } else {
        static const blob::attr none = blob::table();
        try {
            return convert<T>::read(replies.empty() ? none : replies.front());
        } catch (const mismatch& wrong) {
            return wrong;
        } catch (const std::bad_alloc&) {
            return error::msg::no_memory;
        } catch (const std::exception& other) {
            // Of a convert of the application's own. The caller is to get an outcome all the same.
            return {error::msg::parse_error, other.what()};
        }
    }
}

/// `handler`, which takes a result<T>, to be captured by what the client is given. Shared, since
/// the client copies its handlers and this one may be movable only.
template <class T, class Handler>
std::shared_ptr<std::decay_t<Handler>> keep_handler(Handler&& handler) {
    static_assert(std::is_invocable_v<std::decay_t<Handler>&, result<T>>,
                  "the handler takes a tarn::ext::result of what is asked for");
    return std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
}

} // namespace tarn::ext::detail
