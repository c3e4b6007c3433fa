/// The counts behind stats(): kept by whichever side something happens on, read by any thread.
#pragma once

#include "client/counter.h"
#include "tarn/error.h"
#include "tarn/stats.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <system_error>

namespace tarn {

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
    counter most_undelivered;
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
    void note_undelivered(std::uint64_t waiting) noexcept { most_undelivered.raise_to(waiting); }

    void fill(stats& snapshot) const;

private:
    static constexpr std::size_t unknown = static_cast<std::size_t>(error::msg::unknown_error);

    std::array<counter, static_cast<std::size_t>(error::msg::system_error) + 1> by_status_;
    counter aborted_;
};

} // namespace tarn
