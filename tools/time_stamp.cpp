/// Points in time as text, for the lines of tarn.
#include "time_stamp.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace tools {

std::string time_stamp(std::chrono::system_clock::time_point when) {
    using namespace std::chrono;
    const auto whole = floor<seconds>(when);
    const std::time_t count = system_clock::to_time_t(whole);
    std::tm local{};
    ::localtime_r(&count, &local);
    std::array<char, 32> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    std::array<char, 64> rest{}; // room for any numbers, as the compiler sees them
    std::snprintf(rest.data(), rest.size(), ".%03d%c%02ld:%02ld",
                  static_cast<int>(duration_cast<milliseconds>(when - whole).count()),
                  local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return std::string(date.data()) + rest.data();
}

} // namespace tools
