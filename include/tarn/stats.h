/// Counters for programs that run for months.
#pragma once

#include <cstdint>
#include <map>
#include <system_error>

namespace tarn {

/// The length of a queue, and the greatest length that it has had.
struct queue_length {
    std::uint64_t now = 0;     ///< its length
    std::uint64_t highest = 0; ///< the greatest so far
};

/// What a client has done since the start of the process; see bus::stats().
struct stats {
    std::uint64_t connections_made = 0; ///< attempts to connect that have succeeded
    std::uint64_t connections_lost = 0; ///< that this process did not end
    std::uint64_t attempts_failed = 0;  ///< to connect

    /// Those that could not be sent included, but not those refused at once.
    std::uint64_t calls_started = 0;
    /// Calls that have ended, by their outcome. Those whose link was released are not among them.
    std::map<std::error_code, std::uint64_t> calls_ended;
    std::uint64_t calls_given_up = 0; ///< ended by the release of their link
    std::uint64_t calls_pending = 0;  ///< started and not ended

    std::uint64_t calls_served = 0; ///< passed to method handlers
    std::uint64_t replies_sent = 0; ///< data replies of served calls and notifications

    std::uint64_t events_sent = 0;            ///< that the daemon has taken
    std::uint64_t events_received = 0;        ///< from the bus; each once, however many listen
    std::uint64_t notifications_sent = 0;     ///< passed to the bus
    std::uint64_t notifications_received = 0; ///< from the bus, for all subscriptions
    std::uint64_t delivered = 0; ///< events, notifications and messages, to each handler
    /// The same, undelivered: a handler was behind, memory ran out, or cancel() came.
    std::uint64_t dropped = 0;

    queue_length to_private_thread; ///< requests of the application
    queue_length to_application;    ///< results for the application's loop
    queue_length undelivered;       ///< events, notifications and messages in one handler's queue;
                                    ///< `now` of all handlers together

    /// The data that was passed to the bus and came from it: arguments, replies, events and
    /// notifications, without the protocol around them.
    std::uint64_t bytes_sent = 0;
    std::uint64_t bytes_received = 0; ///< the other direction
};

} // namespace tarn
