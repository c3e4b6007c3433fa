/// The table of the connection's states.
#include "client/connection_machine.h"

namespace tarn {

connection_step next_step(client::state now, connection_event event) {
    using state = client::state;
    using action = connection_step::action;
    switch (event) {
    case connection_event::connect:
        if (now == state::disconnected) {
            return {state::connecting, action::start_attempt};
        }
        return {now == state::disconnecting ? state::connecting : now, action::none};
    case connection_event::disconnect:
        if (now == state::connected) {
            return {state::disconnecting, action::tear_down};
        }
        return {now == state::connecting ? state::disconnecting : now, action::none};
    case connection_event::made:
    case connection_event::failed:
        if (now == state::disconnecting) {
            return {now, action::tear_down}; // which was waiting for the attempt's end
        }
        if (now == state::connecting) {
            return {event == connection_event::made ? state::connected : state::disconnected,
                    action::none};
        }
        return {now, action::none};
    case connection_event::lost:
        return {now == state::disconnected ? now : state::disconnecting, action::tear_down};
    case connection_event::torn_down:
        if (now == state::connecting) {
            return {state::connecting, action::start_attempt};
        }
        return {now == state::disconnecting ? state::disconnected : now, action::none};
    case connection_event::cancelled:
        return {state::disconnected, action::none};
    }
    return {now, action::none};
}

} // namespace tarn
