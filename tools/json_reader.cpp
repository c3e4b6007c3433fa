/// JSON text to message values.
#include "json.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tools {

namespace {

using nlohmann::json;
using tarn::blob::attr;
using tarn::blob::bytes;
using tarn::blob::list;
using tarn::blob::table;

/// A field's name as part of a place: bare where that reads well, else in quotation marks.
std::string quoted(const std::string& name) {
    constexpr const char* plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return !name.empty() && name.find_first_not_of(plain) == std::string::npos ? name
                                                                               : json(name).dump();
}

/// Builds the message while the text is parsed. Going by way of nlohmann's own document would lose
/// repeated names and make a double of an integer that is too large.
class builder final : public nlohmann::json_sax<json> {
public:
    table take() { return std::move(message_.get<table>()); }

    // What libubox's own JSON reader makes of it: a field that has neither type nor data.
    bool null() override { return add(attr(bytes())); }
    bool boolean(bool value) override { return add(attr(value)); }
    bool number_integer(number_integer_t value) override {
        const bool fits = value >= std::numeric_limits<int>::min();
        return add(fits ? attr(static_cast<int>(value)) : attr(static_cast<long long>(value)));
    }
    bool number_unsigned(number_unsigned_t value) override {
        // The bus has no unsigned numbers; the receiver would read a negative one.
        if (value > static_cast<unsigned long long>(std::numeric_limits<long long>::max())) {
            refuse_integer(std::to_string(value));
        }
        const bool fits = value <= static_cast<unsigned>(std::numeric_limits<int>::max());
        return add(fits ? attr(static_cast<int>(value)) : attr(static_cast<long long>(value)));
    }
    bool number_float(number_float_t value, const string_t& written) override {
        // The parser's answer to an integer of more than 64 bits.
        if (written.find_first_of(".eE") == string_t::npos) {
            refuse_integer(written);
        }
        return add(attr(value));
    }
    bool string(string_t& value) override {
        refuse_nul(value);
        return add(attr(std::move(value)));
    }
    bool binary(binary_t& /*value*/) override { refuse("JSON text holds no binary values"); }

    bool start_object(std::size_t /*size*/) override { return open(attr(table())); }
    bool key(string_t& name) override {
        open_.back().name = std::move(name);
        refuse_nul(open_.back().name);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*size*/) override { return open(attr(list())); }
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
        if (dynamic_cast<const json::out_of_range*>(&error) != nullptr) {
            refuse_here(text);
        }
        refuse(text);
    }

private:
    /// A list or table being filled, and the name of the table's next field.
    struct level {
        attr container;
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
            if (into.container.type() == typeid(list)) {
                text += '[' + std::to_string(into.container.get<list>().size()) + ']';
            } else {
                text += (n == first ? "" : ".") + quoted(into.name);
            }
        }
        return text;
    }

    bool add(attr&& value) {
        if (open_.empty()) {
            if (value.type() != typeid(table)) {
                refuse("the arguments must be a JSON object");
            }
            message_ = std::move(value);
        } else if (level& into = open_.back(); into.container.type() == typeid(list)) {
            into.container.get<list>().push_back(std::move(value));
        } else {
            into.container.get<table>().emplace(std::move(into.name), std::move(value));
        }
        return true;
    }

    bool open(attr&& container) {
        open_.push_back({std::move(container), {}});
        return true;
    }

    bool close() {
        attr filled = std::move(open_.back().container);
        open_.pop_back();
        return add(std::move(filled));
    }

    attr message_;
    // On the heap: how deep the text nests is the user's choice.
    std::vector<level> open_;
};

} // namespace

table to_table(const std::string& text) {
    if (text.empty()) {
        return {};
    }
    builder message;
    json::sax_parse(text, &message);
    return message.take();
}

} // namespace tools
