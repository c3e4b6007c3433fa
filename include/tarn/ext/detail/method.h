/// How a C++ function serves the calls of a method, for tarn::ext::service.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/convert.h"
#include "tarn/ext/fields.h"
#include "tarn/ext/mismatch.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/responder.h"
#include "tarn/ext/result.h"
#include "tarn/ext/task.h"
#include "tarn/misc/callable_traits.h"

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <typeindex>
#include <utility>

namespace tarn::ext {

template <class T>
class task;

namespace detail {

template <class T>
inline constexpr bool is_responder = false;
template <class T>
inline constexpr bool is_responder<responder<T>> = true;

template <class T>
inline constexpr bool is_task = false;
template <class T>
inline constexpr bool is_task<task<T>> = true;

/// Whether a T is read from all the arguments of a call together.
template <class T>
inline constexpr bool is_whole =
    std::is_same_v<T, reply> || std::is_same_v<T, blob::table> || has_fields<T>;

/// The parameters of a function that serves calls: what it is given, then perhaps a responder.
template <class Signature>
struct parameters;
template <class R, class... P>
struct parameters<std::function<R(P...)>> {
    using all = std::tuple<std::decay_t<P>...>;
    static constexpr bool answers_later() {
        if constexpr (sizeof...(P) == 0) {
            return false;
        } else {
            return is_responder<std::tuple_element_t<sizeof...(P) - 1, all>>;
        }
    }
    static constexpr std::size_t count = sizeof...(P) - (answers_later() ? 1 : 0);
};

template <class F>
using parameters_of = parameters<typename misc::callable_traits<std::decay_t<F>>::type>;
template <class F>
using return_of = typename misc::callable_traits<std::decay_t<F>>::return_type;
template <class F, std::size_t I>
using parameter_of = std::tuple_element_t<I, typename parameters_of<F>::all>;

/// The type that a policy names for a field of type T. A field of another type than the policy
/// names does not get through, as if it were not there. So a type is named only where callers send
/// one and no other: not for the integers that are sent in 32 bits or in 64, whatever fits, nor for
/// a double, which is sent as an integer where it is one, nor where a field may be absent, since
/// one of another type must not be taken for that. Raw bytes stand for any type; the value is
/// checked when it is read.
template <class T>
std::type_index policy_type() {
    constexpr bool varies = (is_integer<T> && !std::is_same_v<T, int>) || std::is_enum_v<T> ||
                            std::is_same_v<T, double> || is_optional<T>;
    if constexpr (!varies && has_stored_type<T>) {
        return convert<T>::stored_type();
    } else {
        return typeid(blob::bytes);
    }
}

/// Builds a policy field by field. Without a field that must be there it is left empty: calls
/// without any arguments do not get through a policy.
class policy_builder {
public:
    template <class T>
    void add(const std::string& name) {
        fields_.emplace(name, policy_type<T>());
        needed_ = needed_ || !is_optional<T>;
    }
    client::method_policy build() && {
        return needed_ ? std::move(fields_) : client::method_policy();
    }

private:
    client::method_policy fields_;
    bool needed_ = false;
};

template <class F, class Names, std::size_t... I>
client::method_policy named_policy(const Names& names, std::index_sequence<I...>) {
    policy_builder policy;
    (policy.add<parameter_of<F, I>>(names[I]), ...);
    return std::move(policy).build();
}

/// The policy of a function that is given one field for each parameter.
template <class F, std::size_t N>
client::method_policy policy_of(const std::array<std::string, N>& names) {
    return named_policy<F>(names, std::make_index_sequence<N>());
}

/// The policy of a function that is given all arguments together.
template <class F>
client::method_policy whole_policy() {
    policy_builder policy;
    if constexpr (parameters_of<F>::count == 1) {
        using whole = parameter_of<F, 0>;
        if constexpr (has_fields<whole>) {
            for_each_field<whole>([&policy](const auto& field) {
                using member = typename std::decay_t<decltype(field)>::type;
                policy.template add<member>(field.name);
            });
        }
    }
    return std::move(policy).build();
}

/// The values of a function's first N parameters, from the fields called `names`. Throws mismatch.
template <class F, std::size_t N, std::size_t... I>
auto read_named(const blob::table& fields, const std::array<std::string, N>& names,
                std::index_sequence<I...>) {
    return std::tuple<parameter_of<F, I>...>{read_field<parameter_of<F, I>>(fields, names[I])...};
}

template <class F, std::size_t N>
auto read_arguments(blob::table&& fields, const std::array<std::string, N>& names) {
    return read_named<F>(fields, names, std::make_index_sequence<N>());
}

/// The value of a function's only parameter, if it has one, from all fields. Throws mismatch.
template <class F>
auto read_whole(blob::table&& fields) {
    if constexpr (parameters_of<F>::count == 0) {
        return std::tuple<>();
    } else {
        using whole = parameter_of<F, 0>;
        if constexpr (has_fields<whole>) {
            return std::tuple<whole>(read_fields<whole>(fields));
        } else {
            return std::tuple<whole>(whole(std::move(fields)));
        }
    }
}

/// Answers with what a function returned.
template <class R>
void answer_with(pending_answer& call, const R& returned) {
    if constexpr (std::is_same_v<R, std::error_code>) {
        call.respond(returned);
    } else if constexpr (is_result<R>) {
        call.answer(returned);
    } else {
        call.send(answer_of(returned));
    }
}

} // namespace detail
} // namespace tarn::ext
