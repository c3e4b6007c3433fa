/// The snapshot of the counts.
#include "client/counters.h"

namespace tarn {

void counters::fill(stats& snapshot) const {
    snapshot.connections_made = connections_made.get();
    snapshot.connections_lost = connections_lost.get();
    snapshot.attempts_failed = attempts_failed.get();
    std::uint64_t ended = aborted_.get();
    if (ended != 0) {
        snapshot.calls_ended[error::generic::aborted] = ended;
    }
    for (std::size_t status = 0; status < by_status_.size(); ++status) {
        if (const std::uint64_t count = by_status_[status].get()) {
            snapshot.calls_ended[static_cast<error::msg>(status)] = count;
            ended += count;
        }
    }
    snapshot.calls_given_up = calls_given_up.get();
    ended += snapshot.calls_given_up;
    // Read last: a call is counted as started before it ends.
    snapshot.calls_started = calls_started.get();
    snapshot.calls_pending = snapshot.calls_started - ended;
    snapshot.calls_served = calls_served.get();
    snapshot.replies_sent = replies_sent.get();
    snapshot.events_sent = events_sent.get();
    snapshot.events_received = events_received.get();
    snapshot.notifications_sent = notifications_sent.get();
    snapshot.notifications_received = notifications_received.get();
    snapshot.delivered = delivered.get();
    snapshot.dropped = dropped.get();
    snapshot.undelivered.now = undelivered.get();
    snapshot.undelivered.highest = most_undelivered.get();
    snapshot.bytes_sent = bytes_sent.get();
    snapshot.bytes_received = bytes_received.get();
}

} // namespace tarn
