/// tarn::ext::convert: how C++ types are read from and written to message values. Everything else
/// of tarn::ext reads and writes through it.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/ext/mismatch.h"

#include <cstddef>
#include <limits>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

namespace tarn::ext {

/// How values of type T are read and written. Specialise it for types of your own:
///
///     template <>
///     struct tarn::ext::convert<my_type> {
///         static my_type read(const tarn::blob::attr& value); // throws mismatch
///         static tarn::blob::attr write(const my_type& value);
///         static std::type_index stored_type();               // what a method's policy names
///     };
///
/// A specialisation without stored_type() takes fields of any type. (The second parameter is for
/// partial specialisations with a condition.)
///
/// Given are:
///  - `bool`: from a flag, and from an 8-bit integer of 0 or 1, which is how a flag arrives where
///    no policy asks for one;
///  - every signed and unsigned integer type but the character types: from an integer of any width,
///    and from a flag as 0 or 1, where the value fits. A message does not say whether an integer
///    has a sign. A signed T reads it as signed, an unsigned T as unsigned, in the width in which
///    it was sent: -1 sent as an `int` is -1 for a `long long` and for a `short`, and 4294967295
///    for an `unsigned int`, as it is for attr::get();
///  - `double`: from a double, from an integer (taken as signed) that a double holds exactly, and
///    from a flag as 0 or 1;
///  - `std::string`, `blob::bytes`, `blob::list`, `blob::table`: from just that;
///  - `blob::attr`: from anything;
///  - `std::vector<T>`, `std::list<T>`: from a list of T;
///  - `std::map<std::string, T>`: from a table of T; of fields of one name it keeps the first;
///  - `std::optional<T>`: from a T. A field that is absent, or that is raw bytes without data (the
///    null of JSON), is `std::nullopt`. As a field of a structure `std::nullopt` is left out, in a
///    list or map it is written as raw bytes without data;
///  - enumerations: by their integer, any that fits;
///  - `reply` (see reply.h), and structures described with TARN_FIELDS (see fields.h).
///
/// Reading throws mismatch, and std::bad_alloc. It ends with a mismatch where lists and tables are
/// nested more than 100 deep in a type that contains itself, since each level takes stack.
template <class T, class = void>
struct convert;

/// Reads a T from `value`. Throws mismatch when it is none, and what convert<T>::read() throws.
/// Thread: any.
template <class T>
T from_attr(const blob::attr& value) {
    return convert<T>::read(value);
}

namespace detail {

template <class T, class = void>
inline constexpr bool has_convert = false;
template <class T>
inline constexpr bool has_convert<T, std::void_t<decltype(sizeof(convert<T>))>> = true;

/// Whether a method's policy can name the type that a T is stored as.
template <class T, class = void>
inline constexpr bool has_stored_type = false;
template <class T>
inline constexpr bool has_stored_type<T, std::void_t<decltype(convert<T>::stored_type())>> = true;

template <class T>
inline constexpr bool is_optional = false;
template <class T>
inline constexpr bool is_optional<std::optional<T>> = true;

/// Whether T is an integer type that a value can hold; `bool` and the character types are not.
template <class T, class = void>
inline constexpr bool is_integer = false;
template <class T>
inline constexpr bool is_integer<T, std::enable_if_t<std::is_integral_v<T>>> =
    blob::detail::has_storage<T> && !std::is_same_v<T, bool>;

/// A stored type in words.
inline std::string words_for(const std::type_index& type) {
    return type == typeid(bool)                 ? "a flag"
           : type == typeid(unsigned char)      ? "an 8-bit integer"
           : type == typeid(unsigned short)     ? "a 16-bit integer"
           : type == typeid(unsigned int)       ? "a 32-bit integer"
           : type == typeid(unsigned long long) ? "a 64-bit integer"
           : type == typeid(double)             ? "a double"
           : type == typeid(std::string)        ? "a string"
           : type == typeid(blob::bytes)        ? "raw bytes"
           : type == typeid(blob::list)         ? "a list"
           : type == typeid(blob::table)        ? "a table"
                                                : "nothing";
}

/// What `value` holds, in words.
inline std::string words_for(const blob::attr& value) {
    return words_for(value.type());
}

/// The stored value of type S in `value`, `wanted` in words. Throws mismatch.
template <class S>
const S& expect(const blob::attr& value, const char* wanted) {
    if (value.type() != typeid(S)) {
        throw mismatch(wanted, words_for(value));
    }
    return value.get<S>();
}

/// Calls `use` with the integer in `value`, of the unsigned type that it is stored as; a flag is an
/// `unsigned char`. Returns false when it holds no integer.
template <class Use>
bool with_integer(const blob::attr& value, const Use& use) {
    const std::type_index type = value.type();
    if (type == typeid(unsigned char)) {
        use(value.get<unsigned char>());
    } else if (type == typeid(unsigned short)) {
        use(value.get<unsigned short>());
    } else if (type == typeid(unsigned int)) {
        use(value.get<unsigned int>());
    } else if (type == typeid(unsigned long long)) {
        use(value.get<unsigned long long>());
    } else if (type == typeid(bool)) {
        use(static_cast<unsigned char>(value.get<bool>() ? 1 : 0));
    } else {
        return false;
    }
    return true;
}

template <class T>
std::string integer_words() {
    const std::size_t bits = sizeof(T) * 8;
    return std::string(std::is_signed_v<T> ? "a signed " : "an unsigned ") + std::to_string(bits) +
           "-bit integer";
}

/// The integer `stored` as a T, in the signedness of T and the width in which it is stored. Throws
/// mismatch when it does not fit.
template <class T, class S>
T narrow(S stored) {
    using wide = std::conditional_t<std::is_signed_v<T>, long long, unsigned long long>;
    using seen = std::conditional_t<std::is_signed_v<T>, std::make_signed_t<S>, S>;
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number of 8 bits, not a character
    const auto value = static_cast<wide>(static_cast<seen>(stored));
    using range = std::numeric_limits<T>;
    if (value < static_cast<wide>(range::min()) || value > static_cast<wide>(range::max())) {
        throw mismatch(integer_words<T>(), "the integer " + std::to_string(value));
    }
    return static_cast<T>(value);
}

/// Counts the levels of a value that are being read on this thread. A type that contains itself is
/// read by recursion, and how deep a message nests is its sender's choice.
class level {
public:
    explicit level(const char* wanted) {
        constexpr int deepest = 100;
        if (depth() == deepest) {
            throw mismatch(wanted, "more than 100 levels of nesting");
        }
        ++depth();
    }
    ~level() { --depth(); }
    level(const level&) = delete;
    level& operator=(const level&) = delete;

private:
    static int& depth() {
        static thread_local int levels = 0;
        return levels;
    }
};

/// What a T is read from, in words.
template <class T>
std::string wanted_words() {
    if constexpr (std::is_enum_v<T>) {
        return wanted_words<typename convert<T>::integer>();
    } else if constexpr (is_integer<T>) {
        return integer_words<T>();
    } else if constexpr (has_stored_type<T>) {
        return words_for(convert<T>::stored_type());
    } else {
        return "a value";
    }
}

/// Reads a T from an element of a list, or from a field: a mismatch names the place.
template <class T, class Place>
T read_within(const blob::attr& value, const Place& place) {
    try {
        return convert<T>::read(value);
    } catch (const mismatch& wrong) {
        throw wrong.within(place);
    }
}

/// The first field called `name`; null when there is none.
inline const blob::attr* find_field(const blob::table& fields, const std::string& name) {
    const auto found = fields.lower_bound(name);
    return found != fields.end() && found->first == name ? &found->second : nullptr;
}

/// Reads the field called `name`. One that is absent is std::nullopt for an optional, and a
/// mismatch for everything else.
template <class T>
T read_field(const blob::table& fields, const std::string& name) {
    const blob::attr* const found = find_field(fields, name);
    if (found != nullptr) {
        return read_within<T>(*found, name);
    }
    if constexpr (is_optional<T>) {
        return std::nullopt;
    } else {
        throw mismatch(wanted_words<T>(), "no such field").within(name);
    }
}

/// Sequences are written and read alike.
template <class Sequence>
struct convert_sequence {
    using element = typename Sequence::value_type;

    static Sequence read(const blob::attr& value) {
        constexpr const char* wanted = "a list";
        const auto& values = expect<blob::list>(value, wanted);
        const level deeper(wanted);
        Sequence sequence;
        std::size_t index = 0;
        for (const blob::attr& one : values) {
            sequence.push_back(read_within<element>(one, index));
            ++index;
        }
        return sequence;
    }
    static blob::attr write(const Sequence& sequence) {
        blob::list values;
        for (const element& one : sequence) {
            values.push_back(convert<element>::write(one));
        }
        return blob::attr(std::move(values));
    }
    static std::type_index stored_type() { return typeid(blob::list); }
};

/// Types that a value holds as they are.
template <class T>
struct convert_stored {
    static blob::attr write(const T& value) { return value; }
    static std::type_index stored_type() { return typeid(T); }
};

} // namespace detail

/// A value that holds `value`, which is of a type that convert knows, or a text that attr takes
/// itself. Throws what convert<T>::write() throws. Thread: any.
template <class T>
blob::attr to_attr(const T& value) {
    if constexpr (blob::detail::is_text<T>) {
        return value;
    } else {
        return convert<T>::write(value);
    }
}

/// \cond
template <>
struct convert<bool> : detail::convert_stored<bool> {
    static bool read(const blob::attr& value) {
        if (value.type() == typeid(unsigned char)) {
            const unsigned char byte = value.get<unsigned char>();
            if (byte > 1) {
                throw mismatch("a flag", "the integer " + std::to_string(byte));
            }
            return byte == 1;
        }
        return detail::expect<bool>(value, "a flag");
    }
};

template <class T>
struct convert<T, std::enable_if_t<detail::is_integer<T>>> {
    static T read(const blob::attr& value) {
        T number = 0;
        if (!detail::with_integer(value,
                                  [&number](auto stored) { number = detail::narrow<T>(stored); })) {
            throw mismatch(detail::integer_words<T>(), detail::words_for(value));
        }
        return number;
    }
    static blob::attr write(T value) { return value; }
    static std::type_index stored_type() { return typeid(blob::detail::stored_t<T>); }
};

template <>
struct convert<double> : detail::convert_stored<double> {
    static double read(const blob::attr& value) {
        double number = 0;
        const bool is_integer = detail::with_integer(value, [&number](auto stored) {
            const auto integer = detail::narrow<long long>(stored);
            number = static_cast<double>(integer);
            // The largest rounds up to a double that no long long can hold.
            constexpr double beyond = 9223372036854775808.0;
            if (number >= beyond || static_cast<long long>(number) != integer) {
                throw mismatch("a double", "the integer " + std::to_string(integer));
            }
        });
        return is_integer ? number : detail::expect<double>(value, "a double");
    }
};

template <>
struct convert<std::string> : detail::convert_stored<std::string> {
    static std::string read(const blob::attr& value) {
        return detail::expect<std::string>(value, "a string");
    }
};

template <>
struct convert<blob::bytes> : detail::convert_stored<blob::bytes> {
    static blob::bytes read(const blob::attr& value) {
        return detail::expect<blob::bytes>(value, "raw bytes");
    }
};

template <>
struct convert<blob::list> : detail::convert_stored<blob::list> {
    static blob::list read(const blob::attr& value) {
        return detail::expect<blob::list>(value, "a list");
    }
};

template <>
struct convert<blob::table> : detail::convert_stored<blob::table> {
    static blob::table read(const blob::attr& value) {
        return detail::expect<blob::table>(value, "a table");
    }
};

template <>
struct convert<blob::attr> {
    static blob::attr read(const blob::attr& value) { return value; }
    static blob::attr write(const blob::attr& value) { return value; }
};

template <class T>
struct convert<std::vector<T>> : detail::convert_sequence<std::vector<T>> {};

template <class T>
struct convert<std::list<T>> : detail::convert_sequence<std::list<T>> {};

template <class T>
struct convert<std::map<std::string, T>> {
    static std::map<std::string, T> read(const blob::attr& value) {
        constexpr const char* wanted = "a table";
        const auto& fields = detail::expect<blob::table>(value, wanted);
        const detail::level deeper(wanted);
        std::map<std::string, T> values;
        for (const auto& [name, field] : fields) {
            if (values.find(name) == values.end()) {
                values.emplace(name, detail::read_within<T>(field, name));
            }
        }
        return values;
    }
    static blob::attr write(const std::map<std::string, T>& values) {
        blob::table fields;
        for (const auto& [name, value] : values) {
            fields.emplace(name, convert<T>::write(value));
        }
        return blob::attr(std::move(fields));
    }
    static std::type_index stored_type() { return typeid(blob::table); }
};

namespace detail {

/// An optional names in a policy what its value names, if anything.
template <class T, class = void>
struct optional_stored_type {};
template <class T>
struct optional_stored_type<T, std::enable_if_t<has_stored_type<T>>> {
    static std::type_index stored_type() { return convert<T>::stored_type(); }
};

} // namespace detail

template <class T>
struct convert<std::optional<T>> : detail::optional_stored_type<T> {
    static std::optional<T> read(const blob::attr& value) {
        const bool null = value.type() == typeid(blob::bytes) && value.get<blob::bytes>().empty();
        if (!value.has_value() || (null && !std::is_same_v<T, blob::bytes>)) {
            return std::nullopt;
        }
        return convert<T>::read(value);
    }
    static blob::attr write(const std::optional<T>& value) {
        return value ? convert<T>::write(*value) : blob::attr(blob::bytes());
    }
};

template <class T>
struct convert<T, std::enable_if_t<std::is_enum_v<T>>> {
    /// By size, since the underlying type may be one that no value holds, such as char.
    using integer = std::conditional_t<std::is_signed_v<std::underlying_type_t<T>>,
                                       std::make_signed_t<T>, std::make_unsigned_t<T>>;

    static T read(const blob::attr& value) { return static_cast<T>(convert<integer>::read(value)); }
    static blob::attr write(T value) {
        return convert<integer>::write(static_cast<integer>(value));
    }
    static std::type_index stored_type() { return convert<integer>::stored_type(); }
};
/// \endcond

} // namespace tarn::ext
