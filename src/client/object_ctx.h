/// The records of one published object, one for each side.
#pragma once

#include "bus.h"
#include "client/served_call.h"
#include "tarn/client.h"

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tarn {

/// The libubus records of one object, kept together so that every pointer passed to libubus stays
/// valid while the object is registered: they point into the vectors below, which do not change
/// after that. Built on the loop thread, read-only afterwards.
struct ubus_object_ctx {
    /// The method and policy arrays and the records that point to them; all calls go to `handler`.
    /// Throws std::logic_error for a policy type that is no stored type.
    void build(ubus_handler_t handler);

    std::string name;
    ubus_object object{}; ///< its address identifies the object on both sides
    ubus_object_type type{};
    std::vector<ubus_method> methods;
    std::vector<std::vector<blobmsg_policy>> policies;
    /// The methods as the application has described them, in the order of their names.
    std::vector<std::pair<std::string, client::method_policy>> described;

    /// The place of a method in the vectors; their length when there is no such method.
    std::size_t find(const char* method) const noexcept;

    open_calls calls; ///< on their way to the application's loop
};

/// The application's side of one published object. The flags are guarded by that side's lock; the
/// rest does not change after the object was added.
struct object_ctx {
    object_ctx(const std::string& object_name, const client::method_map& methods);

    bool active = true;    ///< incoming calls are passed to the handlers
    bool removing = false; ///< being removed: invisible to further additions and removals
    const std::string name;
    std::vector<client::method_handler> handlers; ///< in the order of the methods
    const std::shared_ptr<ubus_object_ctx> ubus_ctx;
};

} // namespace tarn
