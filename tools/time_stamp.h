/// Points in time as text, for the lines of tarn.
#pragma once

#include <chrono>
#include <string>

namespace tools {

/// ISO 8601 with milliseconds, local time and its offset: 2026-03-01T12:00:00.250+01:00.
std::string time_stamp(std::chrono::system_clock::time_point when);

} // namespace tools
