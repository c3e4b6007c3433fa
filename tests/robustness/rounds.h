/// How often the robustness tests repeat what they do.
#pragma once

#include <cstdlib>

namespace tarn::test {

/// The rounds of each case: TARN_TEST_ROUNDS from the environment, else `otherwise`, which keeps
/// the ordinary run short.
inline int rounds(int otherwise) {
    const char* wanted = std::getenv("TARN_TEST_ROUNDS");
    const int count = wanted != nullptr ? std::atoi(wanted) : 0;
    return count > 0 ? count : otherwise;
}

} // namespace tarn::test
