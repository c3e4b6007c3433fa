/// How attr holds a value: the closure that owns it, the function that names its type, and the way
/// from there to the value without comparing names. For attr itself, the encoder and the readers.
#pragma once

#include "tarn/blob/attr.h"

#include <functional>
#include <new>
#include <typeindex>
#include <utility>

namespace tarn::blob::detail {

template <class... S>
struct types {};

/// The stored types, those that messages hold most first.
using stored_types = types<std::string, unsigned int, bool, unsigned char, unsigned long long,
                           table, list, double, unsigned short, bytes>;

using type_fn = std::type_index (*)();

/// The function that attr keeps for a stored type. Each type has one, so that its address
/// identifies the type.
template <class S>
std::type_index type_of() {
    return typeid(S);
}

/// Owns the value and gives the address of it. A number stays inside the std::function that it is
/// put in.
template <class S>
auto closure_of(S value) {
    return [value = std::move(value)]() mutable -> void* {
        return &value;
    };
}

/// Reaches into attr.
struct attr_access {
    static std::function<void*()>& value(attr& of) noexcept { return of.value_; }
    static const std::function<void*()>& value(const attr& of) noexcept { return of.value_; }
    static type_fn& type(attr& of) noexcept { return of.type_fn_; }
    static type_fn type(const attr& of) noexcept { return of.type_fn_; }
};

/// Puts a value that is no list or table into an attr that is empty.
template <class S>
void hold(attr& empty, S value) {
    // In place: an assignment through a temporary costs more than all the rest, since
    // the processor has to wait for what it has just written in other pieces.
    using function = std::function<void*()>;
    function* const place = &attr_access::value(empty);
    place->~function();
    try {
        ::new (static_cast<void*>(place)) function(closure_of(std::move(value)));
    } catch (...) {
        ::new (static_cast<void*>(place)) function();
        throw;
    }
    attr_access::type(empty) = &type_of<S>;
}

/// Our function for the type that `other` names; null when that is no stored type. They differ
/// where the value comes from a second copy of the library in the same process.
type_fn same_type_here(type_fn other);

template <class S, class Use>
bool visit_as(type_fn type, const attr& holder, Use& use) {
    if (type != &type_of<S>) {
        return false;
    }
    use(*static_cast<const S*>(attr_access::value(holder)()));
    return true;
}

template <class Use, class... S>
bool visit_one_of(types<S...> /*candidates*/, type_fn type, const attr& holder, Use& use) {
    return (visit_as<S>(type, holder, use) || ...);
}

/// Calls `use` with the value as what it is stored as; false when there is none.
template <class Use>
bool visit(const attr& holder, Use&& use) {
    type_fn type = attr_access::type(holder);
    while (type != nullptr && !visit_one_of(stored_types(), type, holder, use)) {
        type = same_type_here(type);
    }
    return type != nullptr;
}

} // namespace tarn::blob::detail
