/// A reader of the JSON lines in tests/data, for the tests of recorded messages.
#pragma once

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {

/// A JSON value. Numbers and the words true, false and null are kept as their text; of escapes in
/// strings only the plain ones and \u below 0x800 are known, which is what the data uses.
struct json {
    enum class kind { word, string, array, object };

    kind what = kind::word;
    std::string text;
    std::vector<std::pair<std::string, json>> members; ///< names are empty in an array

    const json& operator[](const std::string& name) const {
        for (const auto& [key, value] : members) {
            if (key == name) {
                return value;
            }
        }
        throw std::out_of_range("no member " + name);
    }
    const json& operator[](std::size_t index) const { return members.at(index).second; }
    std::size_t size() const { return members.size(); }
    bool is_null() const { return what == kind::word && text == "null"; }
    bool flag() const { return text == "true"; }
    unsigned long long number() const { return std::strtoull(text.c_str(), nullptr, 10); }
};

class json_parser {
public:
    explicit json_parser(const std::string& source)
        : at_(source.c_str()) {}

    json value() {
        json read;
        if (*at_ == '"') {
            read.what = json::kind::string;
            read.text = string();
        } else if (*at_ == '[') {
            read.what = json::kind::array;
            list(']', [&] { read.members.emplace_back("", value()); });
        } else if (*at_ == '{') {
            read.what = json::kind::object;
            list('}', [&] {
                std::string name = string();
                take(':');
                read.members.emplace_back(std::move(name), value());
            });
        } else {
            while (*at_ && !std::strchr(",]} ", *at_)) {
                read.text += *at_++;
            }
        }
        return read;
    }

private:
    void take(char expected) {
        if (*at_++ != expected) {
            throw std::runtime_error("malformed JSON");
        }
    }

    template <class Item>
    void list(char end, Item&& item) {
        ++at_;
        while (*at_ != end) {
            item();
            if (*at_ != end) {
                take(',');
            }
        }
        ++at_;
    }

    std::string string() {
        std::string read;
        take('"');
        while (*at_ != '"') {
            if (!*at_) {
                throw std::runtime_error("malformed JSON");
            }
            if (*at_ != '\\') {
                read += *at_++;
            } else if (*++at_ == 'u') {
                const auto code = std::strtoul(std::string(at_ + 1, 4).c_str(), nullptr, 16);
                at_ += 5;
                if (code < 0x80) {
                    read += static_cast<char>(code);
                } else {
                    read += static_cast<char>(0xc0 | (code >> 6));
                    read += static_cast<char>(0x80 | (code & 0x3f));
                }
            } else {
                read += *at_++;
            }
        }
        ++at_;
        return read;
    }

    const char* at_;
};

/// The lines of a file in tests/data.
inline std::vector<json> json_lines(const std::string& file) {
    std::ifstream stream(std::string(TARN_TEST_DATA "/") + file);
    std::vector<json> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(json_parser(line).value());
    }
    return lines;
}

} // namespace tarn::test
