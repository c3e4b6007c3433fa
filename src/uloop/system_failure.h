/// How a failed system call reads in the message of an exception.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tarn {

/// "<what>[<errno>]<separator><text of errno>". The separator differs from message to message.
/// Reads errno, so it comes before anything that may change it.
inline std::runtime_error system_failure(std::string what, const char* separator) {
    const int code = errno;
    what += '[';
    what += std::to_string(code);
    what += ']';
    what += separator;
    what += std::strerror(code);
    return std::runtime_error(what);
}

} // namespace tarn
