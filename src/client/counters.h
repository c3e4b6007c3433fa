/// The counts behind stats(): kept by whichever side something happens on, read by any thread.
#pragma once

#include "tarn/error.h"
#include "tarn/stats.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <system_error>

namespace tarn {

/// A number that any thread may change and read. Nothing else depends on its order.
class counter {
public:
    void add(std::uint64_t n = 1) noexcept { value_.fetch_add(n, std::memory_order_relaxed); }
    void subtract(std::uint64_t n = 1) noexcept { value_.fetch_sub(n, std::memory_order_relaxed); }
    std::uint64_t get() const noexcept { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_{0};
};

/// Everything that is counted, but for the lengths of the queues, which the queues know.
struct counters {
    counter connections_made;
    counter connections_lost;
    counter attempts_failed;
    counter calls_started;
    counter calls_given_up;
    counter calls_served;
    counter replies_sent;
    counter events_sent;
    counter events_received;
    counter notifications_sent;
    counter notifications_received;
    counter delivered;
    counter dropped;
    counter undelivered;
    std::atomic<std::uint64_t> most_undelivered{0};
    counter bytes_sent;
    counter bytes_received;

    void call_ended(const std::error_code& code) noexcept {
        if (code == error::generic::aborted) {
            aborted_.add();
        } else {
            const auto value = static_cast<std::size_t>(code.value());
            by_status_[value < by_status_.size() ? value : unknown].add();
        }
    }

    /// What one handler has not been given yet.
    void note_undelivered(std::uint64_t waiting) noexcept {
        std::uint64_t most = most_undelivered.load(std::memory_order_relaxed);
        while (waiting > most &&
               !most_undelivered.compare_exchange_weak(most, waiting, std::memory_order_relaxed)) {}
    }

    void fill(stats& snapshot) const;

private:
    static constexpr std::size_t unknown = static_cast<std::size_t>(error::msg::unknown_error);

    std::array<counter, static_cast<std::size_t>(error::msg::system_error) + 1> by_status_;
    counter aborted_;
};

} // namespace tarn
