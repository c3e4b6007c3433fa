/// The library's version, for programs that report or check what they run on.
#pragma once

#include "tarn/export.h"

#include <cstdint>
#include <string>

namespace tarn::version {

/// The interface version as a record of three 32-bit numbers.
struct number {
    std::int32_t major; ///< the first number
    std::int32_t minor; ///< the second number
    std::int32_t patch; ///< the third number
};

/// The version of the interface: 1, 0, 0. It counts changes of the interface and is deliberately
/// not the release number that get_string() returns.
///
/// Thread: any.
/// Errors: none; throws nothing.
TARN_API number get();

/// The release as text, "0.0.1": the file version of the shared library.
///
/// Thread: any.
/// Errors: throws only std::bad_alloc.
TARN_API std::string get_string();

} // namespace tarn::version
