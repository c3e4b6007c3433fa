/// The monitor of libubus: turning it on and off. What it shows goes straight to the context's
/// monitor_cb, see dispatch.cpp.
#include "headers.h"

int __ubus_monitor(ubus_context* ctx, const char* type) {
    constexpr int limit_ms = 1000;
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_MONITOR, type, nullptr, nullptr, nullptr, limit_ms);
}
