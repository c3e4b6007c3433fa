/// JSON to message values and back.
#include "json.h"

#include <limits>
#include <stdexcept>
#include <utility>

namespace tools {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using tarn::blob::attr;
using tarn::blob::bytes;
using tarn::blob::list;
using tarn::blob::table;

table read_object(const json& object);

template <class Integer>
attr read_integer(Integer value) {
    if (value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max()) {
        return attr(static_cast<int>(value));
    }
    return attr(static_cast<long long>(value));
}

attr read_value(const json& value) {
    switch (value.type()) {
    case json::value_t::boolean:
        return attr(value.get<bool>());
    case json::value_t::number_integer:
        return read_integer(value.get<long long>());
    case json::value_t::number_unsigned: {
        const auto number = value.get<unsigned long long>();
        const bool fits = number <= static_cast<unsigned>(std::numeric_limits<int>::max());
        return fits ? attr(static_cast<int>(number)) : attr(number);
    }
    case json::value_t::number_float:
        return attr(value.get<double>());
    case json::value_t::string:
        return attr(value.get<std::string>());
    case json::value_t::array: {
        list elements;
        for (const auto& element : value) {
            elements.push_back(read_value(element));
        }
        return attr(std::move(elements));
    }
    case json::value_t::object:
        return attr(read_object(value));
    default:
        throw std::invalid_argument("a message cannot hold null");
    }
}

table read_object(const json& object) {
    table fields;
    for (const auto& item : object.items()) {
        fields.emplace(item.key(), read_value(item.value()));
    }
    return fields;
}

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

ordered_json write_value(const attr& value) {
    const auto is = [&value](const std::type_info& type) {
        return value.type() == type;
    };
    if (is(typeid(bool))) {
        return value.get<bool>();
    }
    if (is(typeid(unsigned char))) {
        const unsigned char byte = value.get<unsigned char>();
        return byte <= 1 ? ordered_json(byte == 1) : ordered_json(byte);
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
        return to_hex(value.get<bytes>());
    }
    if (is(typeid(table))) {
        return to_json(value.get<table>());
    }
    auto elements = ordered_json::array();
    for (const auto& element : value.get<list>()) {
        elements.push_back(write_value(element));
    }
    return elements;
}

} // namespace

tarn::blob::table to_table(const std::string& text) {
    if (text.empty()) {
        return {};
    }
    json parsed;
    try {
        parsed = json::parse(text);
    } catch (const json::parse_error& error) {
        throw std::invalid_argument(error.what());
    }
    if (!parsed.is_object()) {
        throw std::invalid_argument("the arguments must be a JSON object");
    }
    return read_object(parsed);
}

nlohmann::ordered_json to_json(const tarn::blob::table& fields) {
    auto object = ordered_json::object();
    // Past the object's own insertion, which would drop a repeated name.
    auto& items =
        static_cast<ordered_json::object_t::Container&>(object.get_ref<ordered_json::object_t&>());
    for (const auto& [name, value] : fields) {
        items.emplace_back(name, write_value(value));
    }
    return object;
}

} // namespace tools
