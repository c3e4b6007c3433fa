/// Message values to JSON text.
#include "json.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <vector>

namespace tools {

namespace {

using nlohmann::json;
using tarn::blob::attr;
using tarn::blob::bytes;
using tarn::blob::list;
using tarn::blob::table;

std::string to_hex(const bytes& data) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(data.size() * 2);
    for (const unsigned char byte : data) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xfU];
    }
    return text;
}

json scalar(const attr& value) {
    const auto is = [&value](const std::type_info& type) {
        return value.type() == type;
    };
    if (is(typeid(bool))) {
        return value.get<bool>();
    }
    if (is(typeid(unsigned char))) {
        const unsigned char byte = value.get<unsigned char>();
        return byte <= 1 ? json(byte == 1) : json(byte);
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
    if (is(typeid(bytes))) {
        const auto& data = value.get<bytes>();
        return data.empty() ? json() : json(to_hex(data));
    }
    return nullptr; // empty, which no message holds
}

std::string scalar_text(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

/// Writes without recursion: a message may nest deeper than the stack could bear.
class writer {
public:
    explicit writer(layout form)
        : indented_(form == layout::indented) {}

    std::string write(const table& message) {
        open(message);
        while (!open_.empty()) {
            write_next();
        }
        return std::move(text_);
    }

private:
    /// A list or table being written. One of the two positions is in use.
    struct level {
        const list* elements = nullptr;
        const table* fields = nullptr;
        list::const_iterator element{};
        table::const_iterator field{};
    };

    void open(const table& fields) {
        text_ += '{';
        level opened;
        opened.fields = &fields;
        opened.field = fields.begin();
        open_.push_back(opened);
    }

    void open(const list& elements) {
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
            text_ += scalar_text(name) + (indented_ ? ": " : ":");
            write_value(value);
        } else {
            if (current.element == current.elements->end()) {
                return close(current.elements->empty(), ']');
            }
            begin_item(current.element == current.elements->begin());
            write_value(*current.element++);
        }
    }

    void write_value(const attr& value) {
        if (value.type() == typeid(table)) {
            open(value.get<table>());
        } else if (value.type() == typeid(list)) {
            open(value.get<list>());
        } else {
            text_ += scalar_text(scalar(value));
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

} // namespace

std::string to_text(const table& fields, layout form) {
    return writer(form).write(fields);
}

} // namespace tools
