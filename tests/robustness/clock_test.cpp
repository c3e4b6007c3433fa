/// Time limits while the wall clock is set: forwards, as by the first answer of a time server on a
/// device without a battery, and backwards.
#include "tarn/client.h"

#include "robustness/loop_thread.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <future>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<long> wall_clock_offset{0}; // seconds
std::atomic<long> monotonic_reads{0};

int clock_of_the_kernel(clockid_t clock, timespec* time) {
#if defined(SYS_clock_gettime64)
    // The other call fills a record with 32 bits of seconds.
    if (sizeof(long) == 4 && sizeof(time->tv_sec) == 8) {
        return static_cast<int>(::syscall(SYS_clock_gettime64, clock, time));
    }
#endif
#if defined(SYS_clock_gettime)
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
#else
    errno = ENOSYS;
    return -1;
#endif
}

} // namespace

/// In place of the C library's, for the whole process: the library and the C++ library too. Whether
/// it is declared noexcept differs between C libraries.
extern "C" int clock_gettime(clockid_t clock,
                             timespec* time) noexcept(noexcept(::clock_gettime(clock, time))) {
    const int result = clock_of_the_kernel(clock, time);
    if (result == 0 && clock == CLOCK_REALTIME) {
        time->tv_sec += static_cast<time_t>(wall_clock_offset.load());
    }
    if (clock == CLOCK_MONOTONIC) {
        ++monotonic_reads;
    }
    return result;
}

namespace tarn::test {
namespace {

using clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// The order in which two calls that are never answered run into their limits, and when.
struct expiries {
    std::vector<int> order;
    clock::duration first{};
    clock::duration last{};
};

expiries expire_around(long jump) {
    expiries seen;
    const auto start = clock::now();
    loop_thread::wait([&](const std::function<void()>& done) {
        const auto expires = [&seen, start, done](int number) {
            return [&seen, start, done, number](const std::list<blob::attr>&,
                                                const std::error_code& code) {
                EXPECT_EQ(code, error::msg::timeout) << code.message();
                (seen.order.empty() ? seen.first : seen.last) = clock::now() - start;
                seen.order.push_back(number);
                if (seen.order.size() == 2) {
                    done();
                }
            };
        };
        application_loop()->post([expires, jump] {
            const blob::table ten_minutes{{"ms", 600000}};
            bus_client().invoke("demo", "late", ten_minutes, expires(2), 2s);
            bus_client().invoke("demo", "late", ten_minutes, expires(1), 1s);
            wall_clock_offset += jump;
        });
    });
    return seen;
}

class WallClock : public ::testing::TestWithParam<long> {
protected:
    WallClock() {
        service_.wait_for_line("demo_service: ready");
        EXPECT_EQ(loop_.connect(), std::error_code());
    }

    /// How far the wall clock runs ahead of the steady one, as programs see both.
    static std::chrono::seconds ahead() {
        return std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::system_clock::now().time_since_epoch() - clock::now().time_since_epoch());
    }

    bus_daemon daemon_;
    child_process service_{{TARN_TEST_SERVICE}};
    loop_thread loop_;
};

TEST_P(WallClock, SettingItDisturbsNoTimeLimit) {
    const auto before = ahead();
    const long reads = monotonic_reads;
    const expiries seen = expire_around(GetParam());
    EXPECT_NEAR(static_cast<double>((ahead() - before).count()), static_cast<double>(GetParam()), 2)
        << "the clock has been set";
    EXPECT_GT(monotonic_reads, reads) << "the library's calls come here";
    EXPECT_EQ(seen.order, (std::vector<int>{1, 2}));
    EXPECT_GE(seen.first.count(), clock::duration(1s).count());
    EXPECT_GE(seen.last.count(), clock::duration(2s).count());
}

INSTANTIATE_TEST_SUITE_P(ByAnHour, WallClock, ::testing::Values(3600L, -3600L),
                         [](const ::testing::TestParamInfo<long>& set) {
                             return set.param > 0 ? "Forwards" : "Backwards";
                         });

} // namespace
} // namespace tarn::test
