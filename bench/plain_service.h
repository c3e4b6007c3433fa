/// A service on plain libubus.
#pragma once

#include "bus.h"

namespace tarn::bench {

/// Publishes `name` with the methods "echo" and "mute", which never answers, and serves it, and the
/// driver's commands, until the commands end or the connection does. Returns the exit status.
int plain_serve(ubus_context* context, const char* name);

} // namespace tarn::bench
