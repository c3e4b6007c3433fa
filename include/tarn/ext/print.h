/// Values, states and codes as text, and the comparison of values: for logs, tests and people.
///
/// The operators of blob::attr, and the to_string() of each type, are in the namespace of that type
/// and not in tarn::ext: there a test framework, a stream and an algorithm find them by themselves.
/// tarn::ext::to_string() names them all.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/detail/quote.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>
#include <typeindex>
#include <utility>
#include <vector>

namespace tarn {

namespace ext::detail {

/// The digits of a number with a point, an exponent or both. A locale may have another point, of
/// several bytes even.
inline std::string with_plain_point(std::string text) {
    constexpr std::string_view plain = "0123456789+-e";
    const auto point = text.find_first_not_of(plain);
    if (point != std::string::npos) {
        text.replace(point, text.find_first_of(plain, point) - point, ".");
    } else if (text.find('e') == std::string::npos) {
        text += ".0";
    }
    return text;
}

/// A double with as many digits as it takes to read the same one again.
inline std::string double_text(double value) {
    if (!std::isfinite(value)) {
        return std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
    }
    std::array<char, 40> digits{};
    for (const int precision : {15, 16, 17}) {
        std::snprintf(digits.data(), digits.size(), "%.*g", precision, value);
        if (std::strtod(digits.data(), nullptr) == value) {
            break;
        }
    }
    return with_plain_point(digits.data());
}

inline std::string bytes_text(const blob::bytes& data) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text = "bytes(";
    for (const unsigned char byte : data) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xfU];
    }
    return text + ')';
}

/// A value that is neither list nor table.
inline std::string scalar_text(const blob::attr& value) {
    const std::type_index type = value.type();
    return type == typeid(bool)                 ? (value.get<bool>() ? "true" : "false")
           : type == typeid(unsigned char)      ? std::to_string(value.get<unsigned char>())
           : type == typeid(unsigned short)     ? std::to_string(value.get<short>())
           : type == typeid(unsigned int)       ? std::to_string(value.get<int>())
           : type == typeid(unsigned long long) ? std::to_string(value.get<long long>())
           : type == typeid(double)             ? double_text(value.get<double>())
           : type == typeid(std::string)        ? quote(value.get<std::string>())
           : type == typeid(blob::bytes)        ? bytes_text(value.get<blob::bytes>())
                                                : "null";
}

inline bool is_equal_scalar(const blob::attr& left, const blob::attr& right) {
    const std::type_index type = left.type();
    return type == typeid(bool)            ? left.get<bool>() == right.get<bool>()
           : type == typeid(unsigned char) ? left.get<unsigned char>() == right.get<unsigned char>()
           : type == typeid(unsigned short)
               ? left.get<unsigned short>() == right.get<unsigned short>()
           : type == typeid(unsigned int) ? left.get<unsigned int>() == right.get<unsigned int>()
           : type == typeid(unsigned long long)
               ? left.get<unsigned long long>() == right.get<unsigned long long>()
           : type == typeid(double)      ? left.get<double>() == right.get<double>()
           : type == typeid(std::string) ? left.get<std::string>() == right.get<std::string>()
           : type == typeid(blob::bytes) ? left.get<blob::bytes>() == right.get<blob::bytes>()
                                         : true;
}

/// One list or table of a value, and how much of it has been gone through. The walks below keep
/// these on the heap: how deep a message nests is its sender's choice, not the stack's.
class walk {
public:
    explicit walk(const blob::list& elements)
        : elements_(&elements)
        , element_(elements.begin()) {}
    explicit walk(const blob::table& fields)
        : fields_(&fields)
        , field_(fields.begin()) {}

    bool is_table() const { return fields_ != nullptr; }
    bool at_begin() const {
        return is_table() ? field_ == fields_->begin() : element_ == elements_->begin();
    }
    bool at_end() const {
        return is_table() ? field_ == fields_->end() : element_ == elements_->end();
    }
    /// The name of the field that next() returns.
    const std::string& name() const { return field_->first; }
    const blob::attr& next() { return is_table() ? (field_++)->second : *element_++; }

private:
    const blob::list* elements_ = nullptr;
    const blob::table* fields_ = nullptr;
    blob::list::const_iterator element_{};
    blob::table::const_iterator field_{};
};

/// Adds a walk through `value` to `open` when it is a list or a table. Returns whether it is.
inline bool open_walk(std::vector<walk>& open, const blob::attr& value) {
    if (value.type() == typeid(blob::list)) {
        open.emplace_back(value.get<blob::list>());
    } else if (value.type() == typeid(blob::table)) {
        open.emplace_back(value.get<blob::table>());
    } else {
        return false;
    }
    return true;
}

} // namespace ext::detail

namespace blob {

/// The value in one line, like JSON: `{"name": "lan", "ports": [1, 2.0, true]}`. Integers are taken
/// as signed, but those of 8 bits. Raw bytes are `bytes(00ff)`, an empty attr is `null`, doubles
/// that are not finite are `nan`, `inf` and `-inf`. For JSON proper see tarn/ext/json.h.
/// Thread: any. Throws std::bad_alloc.
inline std::string to_string(const attr& value) {
    using namespace ext::detail;
    std::vector<walk> open;
    if (!open_walk(open, value)) {
        return scalar_text(value);
    }
    std::string text(1, open.back().is_table() ? '{' : '[');
    while (!open.empty()) {
        walk& current = open.back();
        if (current.at_end()) {
            text += current.is_table() ? '}' : ']';
            open.pop_back();
            continue;
        }
        text += current.at_begin() ? "" : ", ";
        if (current.is_table()) {
            text += quote(current.name()) + ": ";
        }
        const attr& inner = current.next();
        if (open_walk(open, inner)) {
            text += open.back().is_table() ? '{' : '[';
        } else {
            text += scalar_text(inner);
        }
    }
    return text;
}

/// Writes to_string(value).
inline std::ostream& operator<<(std::ostream& out, const attr& value) {
    return out << to_string(value);
}

/// Whether both hold the same stored type and the same value. An `int` of -1 equals the
/// `unsigned int` of the same bits, which it is stored as; integers of two widths, and a flag and
/// an 8-bit integer, are different. Of tables, fields of one name count in their order. A double
/// that is no number equals nothing. Thread: any. Throws std::bad_alloc.
inline bool operator==(const attr& left, const attr& right) {
    using namespace ext::detail;
    std::vector<walk> open_left;
    std::vector<walk> open_right;
    const auto differ = [&](const attr& a, const attr& b) {
        return a.type() != b.type() ||
               !(open_walk(open_left, a) ? open_walk(open_right, b) : is_equal_scalar(a, b));
    };
    if (differ(left, right)) {
        return false;
    }
    while (!open_left.empty()) {
        walk& a = open_left.back();
        walk& b = open_right.back();
        if (a.at_end() || b.at_end()) {
            if (a.at_end() != b.at_end()) {
                return false;
            }
            open_left.pop_back();
            open_right.pop_back();
        } else if ((a.is_table() && a.name() != b.name()) || differ(a.next(), b.next())) {
            return false;
        }
    }
    return true;
}

/// The opposite.
inline bool operator!=(const attr& left, const attr& right) {
    return !(left == right);
}

} // namespace blob

/// The name of a state: "disconnected", "connecting", "connected" or "disconnecting".
/// Thread: any. Throws std::bad_alloc.
inline std::string to_string(client::state state) {
    switch (state) {
    case client::state::disconnected:
        return "disconnected";
    case client::state::connecting:
        return "connecting";
    case client::state::connected:
        return "connected";
    case client::state::disconnecting:
        return "disconnecting";
    }
    return "state " + std::to_string(static_cast<int>(state));
}

/// Writes to_string(state).
inline std::ostream& operator<<(std::ostream& out, client::state state) {
    return out << to_string(state);
}

/// "appeared" or "gone". Thread: any. Throws std::bad_alloc.
inline std::string to_string(bus::presence what) {
    switch (what) {
    case bus::presence::appeared:
        return "appeared";
    case bus::presence::gone:
        return "gone";
    }
    return "presence " + std::to_string(static_cast<int>(what));
}

/// "subscribed", "lost" or "refused". Thread: any. Throws std::bad_alloc.
inline std::string to_string(bus::subscription what) {
    switch (what) {
    case bus::subscription::subscribed:
        return "subscribed";
    case bus::subscription::lost:
        return "lost";
    case bus::subscription::refused:
        return "refused";
    }
    return "subscription " + std::to_string(static_cast<int>(what));
}

/// The name of the type of a field: "any", "array", "table", "string", "int64", "int32", "int16",
/// "int8" or "float64". Thread: any. Throws std::bad_alloc.
inline std::string to_string(bus::field_type type) {
    switch (type) {
    case bus::field_type::any:
        return "any";
    case bus::field_type::array:
        return "array";
    case bus::field_type::table:
        return "table";
    case bus::field_type::string:
        return "string";
    case bus::field_type::int64:
        return "int64";
    case bus::field_type::int32:
        return "int32";
    case bus::field_type::int16:
        return "int16";
    case bus::field_type::int8:
        return "int8";
    case bus::field_type::float64:
        return "float64";
    }
    return "type " + std::to_string(static_cast<int>(type));
}

/// Writes to_string(what).
inline std::ostream& operator<<(std::ostream& out, bus::presence what) {
    return out << to_string(what);
}
/// Writes to_string(what).
inline std::ostream& operator<<(std::ostream& out, bus::subscription what) {
    return out << to_string(what);
}
/// Writes to_string(type).
inline std::ostream& operator<<(std::ostream& out, bus::field_type type) {
    return out << to_string(type);
}

namespace ext {

/// A code with its category and number: "Not found (tarn::error::msg 4)". In tarn::ext only, since
/// the type is not of this library. Thread: any. Throws std::bad_alloc.
inline std::string to_string(const std::error_code& code) {
    return code.message() + " (" + code.category().name() + ' ' + std::to_string(code.value()) +
           ')';
}

using blob::to_string;
using tarn::to_string;

} // namespace ext

namespace error {

/// As that of the std::error_code. Thread: any. Throws std::bad_alloc.
inline std::string to_string(msg value) {
    return ext::to_string(make_error_code(value));
}
/// The same.
inline std::string to_string(generic value) {
    return ext::to_string(make_error_code(value));
}

} // namespace error

namespace ext {

using error::to_string;

} // namespace ext

} // namespace tarn
