/// The connection of the commands of tarn that outlive the bus.
#include "connection.h"

#include "exit_status.h"

#include <tarn/ext/backoff.h>

namespace tools {

connection::connection(tarn::client& client)
    : states_(client.notify_on_state_change([this](tarn::client::state now) { follow(now); }))
    , attempts_(client.auto_connect(
          tarn::ext::backoff::exponential(std::chrono::seconds(1), std::chrono::seconds(8)))) {}

void connection::follow(tarn::client::state now) {
    if (now == tarn::client::state::connected) {
        if (missing_) {
            remark("connected to the bus");
        }
        connected_ = true;
        missing_ = false;
    } else if (now == tarn::client::state::disconnected && !missing_) {
        remark(connected_ ? "the connection to the bus was lost; reconnecting"
                          : "cannot connect to the bus; waiting for it");
        connected_ = false;
        missing_ = true;
    }
}

} // namespace tools
