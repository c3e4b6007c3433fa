/// JSON text to message values.
#include "json.h"

#include <nlohmann/json.hpp>

#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tools {

namespace {

using nlohmann::json;
using tarn::blob::attr;
using tarn::blob::list;
using tarn::blob::table;

/// Builds the message while the text is parsed. Going by way of nlohmann's own document would lose
/// repeated names and make a double of an integer that is too large.
class builder final : public nlohmann::json_sax<json> {
public:
    table take() { return std::move(message_.get<table>()); }

    bool null() override { refuse("a message cannot hold null"); }
    bool boolean(bool value) override { return add(attr(value)); }
    bool number_integer(number_integer_t value) override {
        const bool fits = value >= std::numeric_limits<int>::min();
        return add(fits ? attr(static_cast<int>(value)) : attr(static_cast<long long>(value)));
    }
    bool number_unsigned(number_unsigned_t value) override {
        const bool fits = value <= static_cast<unsigned>(std::numeric_limits<int>::max());
        return add(fits ? attr(static_cast<int>(value))
                        : attr(static_cast<unsigned long long>(value)));
    }
    bool number_float(number_float_t value, const string_t& written) override {
        // The parser's answer to an integer of more than 64 bits.
        if (written.find_first_of(".eE") == string_t::npos) {
            refuse("the integer " + written + " has more than 64 bits");
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
        refuse_nul(name);
        open_.back().name = std::move(name);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*size*/) override { return open(attr(list())); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& error) override {
        // "[json.exception.parse_error.101] parse error at line 1, ..."
        const std::string text = error.what();
        const auto tag_end = text.find("] ");
        refuse(tag_end == std::string::npos ? text : text.substr(tag_end + 2));
    }

private:
    /// A list or table being filled, and the name of the table's next field.
    struct level {
        attr container;
        std::string name;
    };

    [[noreturn]] static void refuse(const std::string& why) { throw std::invalid_argument(why); }

    static void refuse_nul(const std::string& text) {
        if (text.find('\0') != std::string::npos) {
            refuse("a text cannot hold a NUL character");
        }
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
