/// How libubus starts a request. Internal to libubus.
#pragma once

#include <cstdint>

#include "dispatch.h"
#include "io.h"

namespace bus {

/// Initialises the record, gives it the context's next sequence number and sends the message.
/// UBUS_STATUS_NO_MEMORY if it could not be built, UBUS_STATUS_INVALID_ARGUMENT if it cannot be
/// sent.
int start_request(ubus_context& ctx, ubus_request& request, const outgoing& message,
                  std::uint8_t type, std::uint32_t peer);

} // namespace bus
