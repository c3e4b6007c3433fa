/// Turning a test loop without a hand on its clock, for programs and tests that wait for another
/// process and for timers at once.
#pragma once

#include "support/test_loop.h"

#include <chrono>
#include <functional>

namespace tarn::test {

/// Runs the loop's tasks until `done()` is true or `at_most` has really passed, and returns what
/// `done()` said last. A second of the loop's clock passes whenever nothing has happened for
/// 10 ms, so that back-offs and time limits of seconds take next to no time.
inline bool run_hurried(test_loop& loop, const std::function<bool()>& done,
                        std::chrono::seconds at_most) {
    constexpr std::chrono::milliseconds idle(10);
    const auto end = std::chrono::steady_clock::now() + at_most;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        if (loop.wait_for_task(idle)) {
            loop.run_one();
        } else {
            loop.advance(std::chrono::seconds(1));
        }
    }
    return true;
}

} // namespace tarn::test
