/// Ownership of a libubus connection.
#pragma once

#include "bus.h"

#include <memory>

namespace tarn {

/// Takes the connection out of libubox's loop and frees it. Only where no libubus function is on
/// the stack, since those go on using the context after their callbacks return.
struct bus_context_deleter {
    void operator()(ubus_context* context) const {
        uloop_fd_delete(&context->sock);
        ubus_free(context);
    }
};

using bus_context_ptr = std::unique_ptr<ubus_context, bus_context_deleter>;

} // namespace tarn
