/// JSON text to message values and back. The only header of tarn::ext that needs nlohmann-json.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/ext/detail/quote.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace tarn::ext {

/// How JSON text is laid out.
enum class json_layout {
    single_line, ///< without any space
    indented, ///< two columns a level; the deepest levels of an absurdly deep message share theirs
};

namespace detail {

/// Builds the message while the text is parsed. Going by way of nlohmann's own document would lose
/// repeated names and make a double of an integer that is too large.
class json_reader final : public nlohmann::json_sax<nlohmann::json> {
public:
    blob::table take() { return std::move(message_.get<blob::table>()); }

    // What libubox's own JSON reader makes of it: a field that has neither type nor data.
    bool null() override { return add(blob::attr(blob::bytes())); }
    bool boolean(bool value) override { return add(blob::attr(value)); }
    bool number_integer(number_integer_t value) override {
        const bool fits = value >= std::numeric_limits<int>::min();
        return add(fits ? blob::attr(static_cast<int>(value))
                        : blob::attr(static_cast<long long>(value)));
    }
    bool number_unsigned(number_unsigned_t value) override {
        // The bus has no unsigned numbers; the receiver would read a negative one.
        if (value > static_cast<unsigned long long>(std::numeric_limits<long long>::max())) {
            refuse_integer(std::to_string(value));
        }
        const bool fits = value <= static_cast<unsigned>(std::numeric_limits<int>::max());
        return add(fits ? blob::attr(static_cast<int>(value))
                        : blob::attr(static_cast<long long>(value)));
    }
    bool number_float(number_float_t value, const string_t& written) override {
        // The parser's answer to an integer of more than 64 bits.
        if (written.find_first_of(".eE") == string_t::npos) {
            refuse_integer(written);
        }
        return add(blob::attr(value));
    }
    bool string(string_t& value) override {
        refuse_nul(value);
        return add(blob::attr(std::move(value)));
    }
    bool binary(binary_t& /*value*/) override { refuse("JSON text holds no binary values"); }

    bool start_object(std::size_t /*size*/) override { return open(blob::attr(blob::table())); }
    bool key(string_t& name) override {
        open_.back().name = std::move(name);
        refuse_nul(open_.back().name);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*size*/) override { return open(blob::attr(blob::list())); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& error) override {
        // "[json.exception.parse_error.101] parse error at line 1, ..."
        std::string text = error.what();
        const auto tag_end = text.find("] ");
        if (tag_end != std::string::npos) {
            text.erase(0, tag_end + 2);
        }
        // A number beyond a double's range; unlike the others, this text does not name a place.
        if (dynamic_cast<const nlohmann::json::out_of_range*>(&error) != nullptr) {
            refuse_here(text);
        }
        refuse(text);
    }

private:
    /// A list or table being filled, and the name of the table's next field.
    struct level {
        blob::attr container;
        std::string name;
    };

    [[noreturn]] static void refuse(const std::string& why) { throw std::invalid_argument(why); }

    [[noreturn]] void refuse_here(const std::string& why) const {
        const std::string here = place();
        refuse(here.empty() ? why : here + ": " + why);
    }

    [[noreturn]] void refuse_integer(const std::string& written) const {
        refuse_here("the integer " + written +
                    " is beyond the signed 64 bits of the bus, -9223372036854775808 to "
                    "9223372036854775807");
    }

    void refuse_nul(const std::string& text) const {
        if (text.find('\0') != std::string::npos) {
            refuse_here("a text cannot hold a NUL character");
        }
    }

    /// Where the value being read stands, such as lan.ports[2]. Of a deep place only the end.
    std::string place() const {
        constexpr std::size_t most = 8;
        const std::size_t first = open_.size() - std::min(open_.size(), most);
        std::string text = first == 0 ? "" : "...";
        for (std::size_t n = first; n < open_.size(); ++n) {
            const level& into = open_[n];
            if (into.container.type() == typeid(blob::list)) {
                text += '[' + std::to_string(into.container.get<blob::list>().size()) + ']';
            } else {
                text += (n == first ? "" : ".") + path_name(into.name);
            }
        }
        return text;
    }

    bool add(blob::attr&& value) {
        if (open_.empty()) {
            if (value.type() != typeid(blob::table)) {
                refuse("the arguments must be a JSON object");
            }
            message_ = std::move(value);
        } else if (level& into = open_.back(); into.container.type() == typeid(blob::list)) {
            into.container.get<blob::list>().push_back(std::move(value));
        } else {
            into.container.get<blob::table>().emplace(std::move(into.name), std::move(value));
        }
        return true;
    }

    bool open(blob::attr&& container) {
        open_.push_back({std::move(container), {}});
        return true;
    }

    bool close() {
        blob::attr filled = std::move(open_.back().container);
        open_.pop_back();
        return add(std::move(filled));
    }

    blob::attr message_;
    // On the heap: how deep the text nests is the user's choice.
    std::vector<level> open_;
};

inline std::string json_hex(const blob::bytes& data) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(data.size() * 2);
    for (const unsigned char byte : data) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xfU];
    }
    return text;
}

inline nlohmann::json json_scalar(const blob::attr& value) {
    const auto is = [&value](const std::type_info& type) {
        return value.type() == type;
    };
    if (is(typeid(bool))) {
        return value.get<bool>();
    }
    if (is(typeid(unsigned char))) {
        const unsigned char byte = value.get<unsigned char>();
        return byte <= 1 ? nlohmann::json(byte == 1) : nlohmann::json(byte);
    }
    if (is(typeid(unsigned short))) {
        return value.get<short>();
    }
    if (is(typeid(unsigned int))) {
        return value.get<int>();
    }
    if (is(typeid(unsigned long long))) {
        return value.get<long long>();
    }
    if (is(typeid(double))) {
        return value.get<double>();
    }
    if (is(typeid(std::string))) {
        return value.get<std::string>();
    }
    if (is(typeid(blob::bytes))) {
        const auto& data = value.get<blob::bytes>();
        return data.empty() ? nlohmann::json() : nlohmann::json(json_hex(data));
    }
    return nullptr; // empty, which no message holds
}

inline std::string json_scalar_text(const nlohmann::json& value) {
    return escape_late_controls(
        value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

/// Writes without recursion: a message may nest deeper than the stack could bear.
class json_writer {
public:
    explicit json_writer(json_layout form)
        : indented_(form == json_layout::indented) {}

    std::string write(const blob::table& message) {
        open(message);
        return write_opened();
    }

    std::string write(const blob::attr& value) {
        write_value(value);
        return write_opened();
    }

private:
    std::string write_opened() {
        while (!open_.empty()) {
            write_next();
        }
        return std::move(text_);
    }

    /// A list or table being written. One of the two positions is in use.
    struct level {
        const blob::list* elements = nullptr;
        const blob::table* fields = nullptr;
        blob::list::const_iterator element{};
        blob::table::const_iterator field{};
    };

    void open(const blob::table& fields) {
        text_ += '{';
        level opened;
        opened.fields = &fields;
        opened.field = fields.begin();
        open_.push_back(opened);
    }

    void open(const blob::list& elements) {
        text_ += '[';
        level opened;
        opened.elements = &elements;
        opened.element = elements.begin();
        open_.push_back(opened);
    }

    void write_next() {
        level& current = open_.back();
        if (current.fields != nullptr) {
            if (current.field == current.fields->end()) {
                return close(current.fields->empty(), '}');
            }
            begin_item(current.field == current.fields->begin());
            const auto& [name, value] = *current.field++;
            text_ += json_scalar_text(name) + (indented_ ? ": " : ":");
            write_value(value);
        } else {
            if (current.element == current.elements->end()) {
                return close(current.elements->empty(), ']');
            }
            begin_item(current.element == current.elements->begin());
            write_value(*current.element++);
        }
    }

    void write_value(const blob::attr& value) {
        if (value.type() == typeid(blob::table)) {
            open(value.get<blob::table>());
        } else if (value.type() == typeid(blob::list)) {
            open(value.get<blob::list>());
        } else {
            text_ += json_scalar_text(json_scalar(value));
        }
    }

    void begin_item(bool first) {
        if (!first) {
            text_ += ',';
        }
        new_line();
    }

    void close(bool empty, char bracket) {
        open_.pop_back();
        if (!empty) {
            new_line();
        }
        text_ += bracket;
    }

    void new_line() {
        // Without an end to the indentation the text would grow with the square of the depth.
        constexpr std::size_t deepest = 40;
        if (indented_) {
            text_ += '\n';
            text_.append(2 * std::min(open_.size(), deepest), ' ');
        }
    }

    const bool indented_;
    std::string text_;
    std::vector<level> open_;
};

} // namespace detail

/// The message that a JSON text describes: an object, or nothing at all for an empty message.
/// Integers become 32 bits wide when they fit (signed), else 64; numbers with a point or an
/// exponent become doubles, true and false flags, null raw bytes of which there are none. A name
/// given twice is two fields. Text of any depth is read with a constant amount of stack.
///
/// Thread: any.
/// Errors: throws std::invalid_argument, with a text for the user, when it is no JSON (nor is text
///   with a NUL byte anywhere) or no object, or holds what a message cannot: an integer beyond 64
///   bits with a sign, a number beyond the range of a double, a NUL character, at which the bus
///   would cut the text off. The text says where in the object that is ("lan.ports[2]: ...").
inline blob::table parse_json(const std::string& text) {
    if (text.empty()) {
        return {};
    }
    // The parser would take it for the end, and lose the rest without a word.
    if (text.find('\0') != std::string::npos) {
        throw std::invalid_argument("the JSON text holds a NUL byte");
    }
    detail::json_reader message;
    nlohmann::json::sax_parse(text, &message);
    return message.take();
}

/// A message as JSON without a final newline, fields in the message's order of names, repeated
/// names kept. Integers are printed signed; a byte of 0 or 1 as false or true, since the bus tells
/// no flag from a byte; raw bytes as a string of hexadecimal digits, and as null when there are
/// none; a double that is not finite, which JSON lacks, as null too. Control characters of a text
/// are escaped, those from U+007F to U+009F as well, which a terminal would obey. Text on the bus
/// need not be UTF-8: U+FFFD stands for what is not. Values of any depth are written with a
/// constant amount of stack.
///
/// Thread: any.
/// Errors: throws std::bad_alloc.
inline std::string write_json(const blob::table& fields,
                              json_layout form = json_layout::single_line) {
    return detail::json_writer(form).write(fields);
}

/// The same for any value; an empty one is null. (A template, so that `{{"a", 1}}` is a message.)
template <class Attr, std::enable_if_t<std::is_same_v<Attr, blob::attr>, int> = 0>
std::string write_json(const Attr& value, json_layout form = json_layout::single_line) {
    return detail::json_writer(form).write(value);
}

} // namespace tarn::ext
