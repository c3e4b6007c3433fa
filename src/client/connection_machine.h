/// The connection's states: what an event makes of one, and what is to be done then.
#pragma once

#include "tarn/client.h"

namespace tarn {

/// What happens to the connection.
enum class connection_event {
    connect,    ///< the application, or the reconnection timer, wants one
    disconnect, ///< the application wants none
    made,       ///< the attempt has succeeded
    failed,     ///< the attempt has failed
    lost,       ///< the connection is to be torn down: lost, or given up
    torn_down,  ///< the connection is closed
    cancelled,  ///< the application wants nothing of all this any more
};

/// What follows from an event.
struct connection_step {
    enum class action {
        none,
        start_attempt, ///< a connection is to be requested
        tear_down,     ///< the connection, or the attempt, is to be torn down
    };

    client::state next; ///< the state from now on
    action then;        ///< at once, as a part of the same change

    bool operator==(const connection_step& other) const {
        return next == other.next && then == other.then;
    }
};

/// What `event` makes of state `now`.
///
///     disconnected --connect--> connecting ---made---> connected
///          ^                     |     ^                   |
///          |       failed        |     | connect           | disconnect, lost
///          +---------------------+     |                   v
///          +--------- torn_down ------ disconnecting <-----+
///
/// disconnect while connecting only leads to `disconnecting`: the attempt runs to its end, and that
/// starts the tear-down. connect while disconnecting only leads back to `connecting`: the end of
/// the tear-down starts the new attempt.
connection_step next_step(client::state now, connection_event event);

} // namespace tarn
