/// The message that a command of tarn is given, on its command line or on standard input.
#pragma once

#include <tarn/blob/attr.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tools {

/// The text given is no JSON, or holds what no message can; what() says so in one line.
class json_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The message in word number `n`, or in standard input if that word is "-"; empty without such a
/// word. Throws json_error, and std::system_error when standard input cannot be read.
tarn::blob::table read_message(const std::vector<std::string>& words, std::size_t n);

} // namespace tools
