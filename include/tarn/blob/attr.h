/// tarn::blob::attr: one message field's value whose type is known only at run time.
#pragma once

#include "tarn/export.h"

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

namespace tarn::blob {

class attr;

/// A list of values: a blobmsg array.
using list = std::list<attr>;
/// Field name to value: a blobmsg table, and the arguments and replies of calls.
using table = std::multimap<std::string, attr>;
/// Raw bytes: the blobmsg unspec type.
using bytes = std::vector<unsigned char>;

namespace detail {

class field;
class element;
class braced;
struct attr_access;

template <class T>
using bare = std::remove_cv_t<std::remove_reference_t<T>>;

static_assert(sizeof(short) == 2 && sizeof(int) == 4 && sizeof(long long) == 8,
              "blobmsg integers have 16, 32 and 64 bits");

/// The type that a value of type T is stored as; no member `type` where T is not a value.
template <class T>
struct stored {};
template <class S>
struct stored_as {
    using type = S;
};
template <>
struct stored<bool> : stored_as<bool> {};
template <>
struct stored<signed char> : stored_as<unsigned char> {};
template <>
struct stored<unsigned char> : stored_as<unsigned char> {};
template <>
struct stored<short> : stored_as<unsigned short> {};
template <>
struct stored<unsigned short> : stored_as<unsigned short> {};
template <>
struct stored<int> : stored_as<unsigned int> {};
template <>
struct stored<unsigned int> : stored_as<unsigned int> {};
template <>
struct stored<long>
    : stored_as<std::conditional_t<sizeof(long) == 8, unsigned long long, unsigned int>> {};
template <>
struct stored<unsigned long> : stored<long> {};
template <>
struct stored<long long> : stored_as<unsigned long long> {};
template <>
struct stored<unsigned long long> : stored_as<unsigned long long> {};
template <>
struct stored<double> : stored_as<double> {};
template <>
struct stored<std::string> : stored_as<std::string> {};
template <>
struct stored<bytes> : stored_as<bytes> {};
template <>
struct stored<list> : stored_as<list> {};
template <>
struct stored<table> : stored_as<table> {};

template <class T>
using stored_t = typename stored<T>::type;

template <class T, class = void>
inline constexpr bool has_storage = false;
template <class T>
inline constexpr bool has_storage<T, std::void_t<stored_t<T>>> = true;

template <class T>
inline constexpr bool is_c_text =
    std::is_same_v<std::decay_t<T>, const char*> || std::is_same_v<std::decay_t<T>, char*>;
template <class T>
inline constexpr bool is_text = is_c_text<T> || std::is_same_v<bare<T>, std::string_view>;

template <class T>
inline constexpr bool is_attr = std::is_same_v<bare<T>, attr>;
template <class T>
inline constexpr bool is_value = has_storage<bare<T>> || is_text<T>;

/// An attr is excluded first, since asking whether it converts would lead back here.
template <class T, bool = is_attr<T> || std::is_null_pointer_v<bare<T>>>
inline constexpr bool is_name = false;
template <class T>
inline constexpr bool is_name<T, false> = std::is_convertible_v<T, std::string>;

/// `long` has no storage of its own, and a reference to it would alias another type.
template <class T>
inline constexpr bool is_long = std::is_same_v<T, long> || std::is_same_v<T, unsigned long>;

} // namespace detail

/// One dynamically typed value, or nothing.
///
/// Stored types are ten: `bool`, `unsigned char`, `unsigned short`, `unsigned int`,
/// `unsigned long long`, `double`, `std::string`, `blob::bytes`, `blob::list` and `blob::table`.
/// A signed integer is stored as the unsigned type of its width, bits kept, and read back with the
/// signed getter; `long` is stored by its width. Text (`const char*`, a literal,
/// `std::string_view`) is stored as `std::string`. No other conversion exists: not between widths,
/// not between integers, `bool` and `double`. `char`, the wide character types, `float`,
/// `long double`, enumerations, null and pointers other than `const char*` are not values, and
/// using one does not compile.
///
/// Values may be written as initializer lists. The rules, in the order in which they are tried:
///  - `{}` is empty;
///  - `{{name, value}, ...}`, every part a braced pair that starts with a text, is a table;
///  - `{v, ...}`, plain values only, is a list, also with one element: `attr{1}` is a list;
///  - `{a}` with a single `attr` copies (or moves) it;
///  - `{v, ...}` with two or more elements, at least one of them an `attr`, is a list.
/// The value in a pair follows the same rules. A list whose elements are themselves braced has no
/// form of its own, since `{"x", "y"}` could be a pair as well as a list: write `blob::list{...}`
/// and `blob::table{...}` for the elements. Everything else does not compile. (A list `x` as the
/// only element of `blob::list{x}` is copied by some compilers and nested by others, since both are
/// the same standard type: write `blob::list{attr(x)}`.)
///
/// Copies are deep and independent. Copying, moving and destroying need a constant amount of stack
/// and linear time however deep values are nested; moving and destroying never allocate.
/// Operations that fail to allocate throw `std::bad_alloc` and leave the value as it was (strong
/// exception guarantee).
///
/// Threads: no locking inside. A value may be passed from thread to thread; concurrent use of one
/// value must be excluded by the caller.
class TARN_API attr {
public:
    /// Empty.
    attr() noexcept = default;
    /// A deep copy.
    attr(const attr& other) = default;
    /// The same for a source that is not const.
    attr(attr& other)
        : attr(static_cast<const attr&>(other)) {}
    /// Takes the value over; the source is left empty. References to the value got from the source
    /// are no longer valid, except those to a list or table, which stays where it is.
    attr(attr&& other) noexcept;

    /// Holds `value`, as by `set(value)`.
    template <class T, std::enable_if_t<detail::is_value<T>, int> = 0>
    attr(T&& value) {
        set(std::forward<T>(value));
    }
    /// A table: `{{"name", "lan"}, {"up", true}}`.
    attr(std::initializer_list<detail::field> fields);
    /// A list of plain values: `{1, 2, 3}`. A template only to rank below the table, since a pair
    /// of texts could be a braced element as well.
    template <class = void>
    attr(std::initializer_list<detail::element> elements);
    /// A list of braced elements does not compile, see above.
    template <class = void>
    attr(std::initializer_list<detail::braced> elements) = delete;
    /// A list in which at least one element is an attr: `{a, 1, "x"}`.
    template <class... T, std::enable_if_t<(sizeof...(T) >= 2) && (detail::is_attr<T> || ...) &&
                                               ((detail::is_attr<T> || detail::is_value<T>)&&...),
                                           int> = 0>
    attr(T&&... elements) {
        list values;
        (values.emplace_back(std::forward<T>(elements)), ...);
        store(std::move(values));
    }

    /// Replaces the value with a deep copy of the other's, which may be part of this value.
    attr& operator=(const attr& other);
    /// Takes the other's value over and leaves the other empty. The other may be part of this
    /// value; moving a value onto itself keeps it.
    attr& operator=(attr&& other) noexcept;

    /// Exchanges the values.
    void swap(attr& other) noexcept {
        value_.swap(other.value_);
        std::swap(type_fn_, other.type_fn_);
    }
    /// As left.swap(right).
    friend void swap(attr& left, attr& right) noexcept { left.swap(right); }

    /// Destroys the value, if any.
    void reset() noexcept;

    /// Whether a value is held.
    bool has_value() const noexcept { return static_cast<bool>(value_); }

    /// The stored type of the value; `typeid(void)` when empty.
    std::type_index type() const { return type_fn_ ? type_fn_() : std::type_index(typeid(void)); }

    /// Replaces the value by a copy of `value`, or by `value` moved where it is an rvalue. T is one
    /// of the types named above, given (`set<int>(5)`) or deduced (`set(5)`).
    ///
    /// Errors: throws `std::logic_error` ("basic_string::_M_construct null not valid") when `value`
    /// is a null text. When it throws, the attr keeps its value, and an rvalue argument its own.
    template <class T, std::enable_if_t<detail::is_value<T>, int> = 0>
    void set(T&& value) {
        using S = detail::bare<T>;
        if constexpr (detail::is_c_text<T>) {
            store_text(value);
        } else if constexpr (detail::is_text<T>) {
            store(std::string(value));
        } else if constexpr (std::is_arithmetic_v<S>) {
            store(static_cast<detail::stored_t<S>>(value));
        } else if constexpr (std::is_lvalue_reference_v<T> ||
                             std::is_const_v<std::remove_reference_t<T>>) {
            store(S(value));
        } else {
            store(std::forward<T>(value));
        }
    }
    /// The same for an lvalue with T given: `set<int>(i)`.
    template <class T, std::enable_if_t<detail::has_storage<T>, int> = 0>
    void set(const T& value) {
        set<const T&>(value);
    }
    /// Holds the NUL-terminated text as a `std::string`: `set<char>("text")`.
    ///
    /// Errors: throws `std::logic_error` ("basic_string::_M_construct null not valid") when `text`
    /// is null.
    template <class T, std::enable_if_t<std::is_same_v<T, char>, int> = 0>
    void set(const char* text) {
        store_text(text);
    }
    /// A pointer is no flag, although the language would convert it.
    template <class T, class Pointer,
              std::enable_if_t<std::is_same_v<T, bool> && std::is_pointer_v<std::decay_t<Pointer>>,
                               int> = 0>
    void set(Pointer&&) = delete;

    /// The value in place: a reference through which it may be changed, valid until the attr is
    /// assigned, set, reset, moved from, swapped or destroyed. T is a stored type or the signed
    /// type of the same width; `get<long>()` and `get<unsigned long>()` return by value.
    ///
    /// Errors: throws `std::runtime_error` when the stored type is another one or the attr is
    /// empty: "tarn::blob::attr::get can't cast from ", the name of the type held, " to ", the name
    /// of the stored type requested, both as `std::type_info::name()` gives them.
    template <class T, class S = detail::stored_t<T>>
    std::conditional_t<detail::is_long<T>, T, T&> get() {
        return as<T, S, T>();
    }
    /// The same for a value that is not to be changed.
    template <class T, class S = detail::stored_t<T>>
    std::conditional_t<detail::is_long<T>, T, const T&> get() const {
        return as<T, S, const T>();
    }

private:
    friend struct detail::attr_access;

    template <class T, class S, class Result>
    std::conditional_t<detail::is_long<T>, T, Result&> as() const {
        void* const found = locate(typeid(S));
        if constexpr (detail::is_long<T>) {
            return static_cast<T>(*static_cast<S*>(found));
        } else {
            return *static_cast<T*>(found);
        }
    }

    void* locate(const std::type_index& wanted) const;

    TARN_HIDDEN void replace(std::function<void*()>&& value, std::type_index (*type_fn)()) noexcept;
    void store(bool value);
    void store(unsigned char value);
    void store(unsigned short value);
    void store(unsigned int value);
    void store(unsigned long long value);
    void store(double value);
    void store(std::string&& value);
    void store(bytes&& value);
    void store(list&& value);
    void store(table&& value);
    void store_text(const char* text);

    /// Owns the value and gives its address; empty when nothing is held.
    std::function<void*()> value_;
    /// Names the stored type; null when nothing is held.
    std::type_index (*type_fn_)() = nullptr;
};

namespace detail {

/// A name and a value between braces, one entry of a table written as an initializer list. The name
/// is a template, so that an integer 0 never becomes a null text.
class field {
public:
    template <class Name, std::enable_if_t<is_name<Name>, int> = 0>
    field(Name&& name, attr value)
        : name_(std::forward<Name>(name))
        , value_(std::move(value)) {}

private:
    friend class blob::attr;

    // Mutable, since an initializer list is const and its values are to be moved out of it.
    mutable std::string name_;
    mutable attr value_;
};

/// A plain value, one element of a list written as an initializer list. Not an attr: `attr b{a}`
/// copies a.
class element {
public:
    template <class T, std::enable_if_t<is_value<T>, int> = 0>
    element(T&& value)
        : value_(std::forward<T>(value)) {}
    /// Refuses an element in braces of its own: `{{1}, {2}}` would silently lose them.
    template <class T>
    element(std::initializer_list<T>) = delete;

private:
    friend class blob::attr;

    mutable attr value_;
};

/// What is written between braces and is no field. Its only use is to be refused: without it, some
/// compilers take `{{0, "x"}}` as a copy of `{0, "x"}` and silently drop a level.
class braced {
public:
    template <class A, class B, class... More,
              std::enable_if_t<(sizeof...(More) > 0) || !is_name<A>, int> = 0>
    braced(A&&, B&&, More&&...);
    braced(std::initializer_list<field>);
    braced(std::initializer_list<braced>);
};

} // namespace detail

template <class>
attr::attr(std::initializer_list<detail::element> elements) {
    list values;
    for (const detail::element& element : elements) {
        values.push_back(std::move(element.value_));
    }
    store(std::move(values));
}

} // namespace tarn::blob
