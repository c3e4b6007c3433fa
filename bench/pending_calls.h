/// Calls on plain libubus that are never answered.
#pragma once

#include "bus.h"

#include <list>
#include <string>

namespace tarn::bench {

/// Ends the process where libubus refuses, or when a call ends all the same.
class pending_calls {
public:
    explicit pending_calls(ubus_context* context)
        : context_(context) {}
    /// Aborts them: no callback runs any more, and the service is not notified.
    ~pending_calls();
    pending_calls(const pending_calls&) = delete;
    pending_calls& operator=(const pending_calls&) = delete;

    /// Makes so many calls more of the method "mute"; returns when the service has them all.
    void make(const std::string& object, unsigned long count);

private:
    void start(const std::string& object, std::uint32_t n);

    ubus_context* const context_;
    /// Never moved: libubus knows their addresses.
    std::list<ubus_request> calls_;
};

} // namespace tarn::bench
