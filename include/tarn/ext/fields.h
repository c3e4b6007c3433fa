/// TARN_FIELDS: makes a structure of your own readable from and writable to message tables.
#pragma once

#include "tarn/ext/convert.h"
#include "tarn/ext/detail/for_each.h"

#include <string>
#include <tuple>
#include <type_traits>
#include <typeindex>
#include <utility>

/// Says which members of the structure `type` are the fields of its table, each under its own name:
///
///     struct port {
///         std::string name;
///         std::optional<int> speed;
///     };
///     TARN_FIELDS(port, name, speed)
///
/// Stands at namespace scope, in the namespace of the structure, directly after it. Up to 64
/// members, of any type that tarn::ext::convert knows: other structures of this kind, optionals and
/// vectors of them included. The structure needs a default constructor.
///
/// Reading (from_attr, reply::at, the results of calls): fields that the structure does not have
/// are ignored. A field that is absent is a mismatch, unless its member is a std::optional. Of
/// several fields of one name the first counts. Writing leaves out the optionals without a value.
/// Thread: any.
#define TARN_FIELDS(type, ...)                                                                     \
    [[maybe_unused]] inline auto tarn_fields_of(::tarn::ext::detail::type_tag<type>) {             \
        return ::std::make_tuple(TARN_EXT_FOR_EACH(TARN_EXT_FIELD, type, __VA_ARGS__));            \
    }

/// One member, for TARN_FIELDS.
#define TARN_EXT_FIELD(type, member)                                                               \
    ::tarn::ext::detail::named_member<decltype(type::member), type> {                              \
#member, &type::member                                                                     \
    }

namespace tarn::ext {

namespace detail {

/// Finds the function that TARN_FIELDS defines, in the namespace of T. Not a pointer to a T, which
/// would find the fields of a base class.
template <class T>
struct type_tag {};

/// One member, and the name of its field.
template <class Member, class Owner>
struct named_member {
    using type = Member;
    const char* name;
    Member Owner::*member;
};

template <class T, class = void>
inline constexpr bool has_fields = false;
template <class T>
inline constexpr bool has_fields<T, std::void_t<decltype(tarn_fields_of(type_tag<T>()))>> = true;

/// Calls `use` with the named_member of each field of T.
template <class T, class Use>
void for_each_field(const Use& use) {
    std::apply([&use](const auto&... fields) { (use(fields), ...); },
               tarn_fields_of(type_tag<T>()));
}

/// Reads a T from a table. Throws mismatch.
template <class T>
T read_fields(const blob::table& fields) {
    const level deeper("a table");
    T object{};
    for_each_field<T>([&](const auto& field) {
        using member = typename std::decay_t<decltype(field)>::type;
        object.*field.member = read_field<member>(fields, field.name);
    });
    return object;
}

/// The table that a T is.
template <class T>
blob::table write_fields(const T& object) {
    blob::table fields;
    for_each_field<T>([&](const auto& field) {
        using member = typename std::decay_t<decltype(field)>::type;
        const member& value = object.*field.member;
        if constexpr (is_optional<member>) {
            if (!value) {
                return;
            }
        }
        fields.emplace(field.name, convert<member>::write(value));
    });
    return fields;
}

} // namespace detail

/// \cond
template <class T>
struct convert<T, std::enable_if_t<detail::has_fields<T>>> {
    static T read(const blob::attr& value) {
        return detail::read_fields<T>(detail::expect<blob::table>(value, "a table"));
    }
    static blob::attr write(const T& object) { return detail::write_fields(object); }
    static std::type_index stored_type() { return typeid(blob::table); }
};
/// \endcond

} // namespace tarn::ext
