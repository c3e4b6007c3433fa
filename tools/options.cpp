/// The command line of tarn, taken apart.
#include "options.h"

#include <charconv>
#include <string_view>

namespace tools {

namespace {

std::chrono::seconds parse_seconds(const std::string& text) {
    long long number = -1;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() || number < 0) {
        throw usage_error("'" + text + "' is no number of seconds");
    }
    return std::chrono::seconds(number);
}

std::string parse_traffic(const std::string& text) {
    if (text != "r" && text != "t") {
        throw usage_error("-M takes r (received by the daemon) or t (transmitted by it), not '" +
                          text + "'");
    }
    return text;
}

bool set_flag(options& parsed, char letter) {
    switch (letter) {
    case 'h':
        parsed.help = true;
        return true;
    case 's':
        parsed.json = true;
        return true;
    case 'S':
        parsed.simplified = true;
        return true;
    case 'v':
        parsed.verbose = true;
        return true;
    case 'T':
        parsed.time_stamps = true;
        return true;
    default:
        return false;
    }
}

/// What an option that takes a value needs, for the user; null for one that takes none.
const char* value_of(char letter) {
    switch (letter) {
    case 't':
        return "a number of seconds";
    case 'm':
        return "a type of message";
    case 'M':
        return "r or t";
    default:
        return nullptr;
    }
}

void set_value(options& parsed, char letter, const std::string& value) {
    if (letter == 't') {
        parsed.limit = parse_seconds(value);
    } else if (letter == 'm') {
        parsed.message_types.push_back(value);
    } else {
        parsed.traffic = parse_traffic(value);
    }
}

using position = std::vector<std::string>::const_iterator;

/// Takes the letters behind one dash. Leaves `argument` at the value, if that is a word of its own.
void parse_letters(options& parsed, position& argument, position end) {
    const std::string& text = *argument;
    for (std::size_t n = 1; n < text.size(); ++n) {
        const char letter = text[n];
        if (set_flag(parsed, letter)) {
            continue;
        }
        const char* const needed = value_of(letter);
        if (needed == nullptr) {
            throw usage_error("unknown option '" + text + "'");
        }
        if (n + 1 < text.size()) {
            return set_value(parsed, letter, text.substr(n + 1));
        }
        if (++argument == end) {
            throw usage_error(std::string{'-', letter} + " needs " + needed);
        }
        return set_value(parsed, letter, *argument);
    }
}

} // namespace

options parse_options(const std::vector<std::string>& arguments) {
    options parsed;
    bool options_over = false;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (options_over || *argument == "-" || argument->empty() || argument->front() != '-') {
            parsed.words.push_back(*argument);
        } else if (*argument == "--") {
            options_over = true;
        } else if (*argument == "--help") {
            parsed.help = true;
        } else if (*argument == "--version") {
            parsed.version = true;
        } else {
            parse_letters(parsed, argument, arguments.end());
        }
    }
    if (!parsed.words.empty()) {
        parsed.command = parsed.words.front();
        parsed.words.erase(parsed.words.begin());
    }
    return parsed;
}

} // namespace tools
