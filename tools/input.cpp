/// The message that a command of tarn is given, on its command line or on standard input.
#include "input.h"

#include <tarn/ext/json.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace tools {

namespace {

/// Everything up to the end of standard input.
std::string read_standard_input() {
    std::string text;
    std::array<char, 65536> chunk{};
    for (;;) {
        const ssize_t size = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot read standard input");
        }
        if (size == 0) {
            return text;
        }
        text.append(chunk.data(), static_cast<std::size_t>(size));
    }
}

} // namespace

tarn::blob::table read_message(const std::vector<std::string>& words, std::size_t n) {
    std::string text;
    if (words.size() > n && words[n] == "-") {
        text = read_standard_input();
        // A message without fields is written {}; nothing at all is the trace of a command that
        // failed at the other end of a pipe.
        if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
            throw json_error("no JSON on standard input");
        }
    } else if (words.size() > n) {
        text = words[n];
    }
    try {
        return tarn::ext::parse_json(text);
    } catch (const std::invalid_argument& error) {
        throw json_error(error.what());
    }
}

} // namespace tools
