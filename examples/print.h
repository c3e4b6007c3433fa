// Writes decoded values as one line of text, JSON-like, for the examples.
#pragma once

#include <tarn/blob.h>

#include <ostream>

namespace examples {

/// So deep is what others have sent looked into, since each level takes a piece of the stack.
constexpr int most_levels = 100;

inline void print(std::ostream& out, const tarn::blob::attr& value, int level = 0);

inline void print(std::ostream& out, const tarn::blob::table& fields, int level = 0) {
    const char* separator = "";
    out << '{';
    for (const auto& [name, value] : fields) {
        out << separator << '"' << name << "\": ";
        print(out, value, level + 1);
        separator = ", ";
    }
    out << '}';
}

inline void print(std::ostream& out, const tarn::blob::attr& value, int level) {
    using tarn::blob::bytes;
    using tarn::blob::list;
    using tarn::blob::table;
    const auto is = [&value](const std::type_info& type) {
        return value.type() == type;
    };
    if (level >= most_levels) {
        out << "...";
    } else if (is(typeid(bool))) {
        out << (value.get<bool>() ? "true" : "false");
    } else if (is(typeid(unsigned char))) {
        out << static_cast<int>(value.get<unsigned char>());
    } else if (is(typeid(unsigned short))) {
        out << value.get<short>();
    } else if (is(typeid(unsigned int))) {
        out << value.get<int>();
    } else if (is(typeid(unsigned long long))) {
        out << value.get<long long>();
    } else if (is(typeid(double))) {
        out << value.get<double>();
    } else if (is(typeid(std::string))) {
        out << '"' << value.get<std::string>() << '"';
    } else if (is(typeid(bytes))) {
        out << '<' << value.get<bytes>().size() << " bytes>";
    } else if (is(typeid(table))) {
        print(out, value.get<table>(), level);
    } else if (is(typeid(list))) {
        const char* separator = "";
        out << '[';
        for (const auto& element : value.get<list>()) {
            out << separator;
            print(out, element, level + 1);
            separator = ", ";
        }
        out << ']';
    } else {
        out << "null";
    }
}

} // namespace examples
