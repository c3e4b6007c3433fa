/// The time of the loop: nanoseconds of CLOCK_MONOTONIC, the clock its timerfd runs on.
#pragma once

#include <chrono>
#include <ctime>

namespace tarn::loops::detail {

/// A deadline that is not reached: about 292 years after the start of the machine.
constexpr std::chrono::nanoseconds never = std::chrono::nanoseconds::max();

inline std::chrono::nanoseconds monotonic_now() noexcept {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// `now` plus `delay`: `now` itself for a delay below zero, `never` where the sum would overflow.
/// `now` is not negative.
constexpr std::chrono::nanoseconds deadline_after(std::chrono::nanoseconds now,
                                                  std::chrono::seconds delay) noexcept {
    if (delay <= std::chrono::seconds::zero()) {
        return now;
    }
    if (delay > std::chrono::duration_cast<std::chrono::seconds>(never - now)) {
        return never;
    }
    return now + delay;
}

} // namespace tarn::loops::detail
