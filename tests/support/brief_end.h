/// The end of processes that a test starts in numbers.
#pragma once

#include <cstdlib>
#include <string>

namespace tarn::test {

/// ThreadSanitizer's processes wait a second at their end for races; from now on those that this
/// process starts wait for a moment. Before there are threads.
inline void end_briefly() {
    const char* const given = std::getenv("TSAN_OPTIONS");
    const std::string options = given != nullptr ? given : "";
    ::setenv("TSAN_OPTIONS", (options + ":atexit_sleep_ms=50").c_str(), 1);
}

/// How often a test starts a process where a hundred times or more is what it takes: fewer times
/// where that takes long.
constexpr int many_starts(int wanted) {
#if defined(__SANITIZE_THREAD__)
    return wanted / 10;
#else
    return wanted;
#endif
}

} // namespace tarn::test
