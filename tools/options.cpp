/// The command line of tarn, taken apart.
#include "options.h"

#include <charconv>
#include <string_view>

namespace tools {

namespace {

std::chrono::seconds parse_seconds(std::string_view text) {
    long long number = -1;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() || number < 0) {
        throw usage_error("'" + std::string(text) + "' is no number of seconds");
    }
    return std::chrono::seconds(number);
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
        } else if (*argument == "-h" || *argument == "--help") {
            parsed.help = true;
        } else if (*argument == "--version") {
            parsed.version = true;
        } else if (*argument == "-s" || *argument == "-S") {
            parsed.single_line = true;
        } else if (*argument == "-t") {
            if (++argument == arguments.end()) {
                throw usage_error("-t needs a number of seconds");
            }
            parsed.limit = parse_seconds(*argument);
        } else if (argument->compare(0, 2, "-t") == 0) {
            parsed.limit = parse_seconds(argument->substr(2));
        } else {
            throw usage_error("unknown option '" + *argument + "'");
        }
    }
    if (!parsed.words.empty()) {
        parsed.command = parsed.words.front();
        parsed.words.erase(parsed.words.begin());
    }
    return parsed;
}

} // namespace tools
