/// The records of one published object, one for each side, and the table of them.
#pragma once

#include "bus.h"
#include "tarn/client.h"
#include "tarn/uloop.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

namespace tarn {

struct incoming_call;
struct ubus_object_ctx;

/// How a call ends. Filled in when that is known.
struct call_completion {
    std::shared_ptr<incoming_call> call;
    std::error_code status;
    std::weak_ptr<void> connection; ///< nobody hears of it any more when this has expired
    /// Of a call that nobody has settled: the object that refuses it, while it is published.
    std::shared_ptr<ubus_object_ctx> refused_by;
};

/// A call that has arrived for an object. Whoever settles it decides its answer: the application's
/// loop by handing it to a method handler, or the loop thread by refusing it.
struct incoming_call {
    ubus_request_data request; ///< libubus's record of the deferred request
    std::atomic<bool> settled{false};
    /// The task that completes the call, and what it works on: made with the call, so that no
    /// shortage of memory leaves the caller without an answer. For the application's side.
    uloop::ready_task complete;
    std::shared_ptr<call_completion> completion;
};

/// The libubus records of one object, kept together so that every pointer handed to libubus stays
/// valid while the object is registered: names point into the strings and keys below, policy
/// arrays into a list, whose elements never move. Built on the loop thread, read-only afterwards.
struct ubus_object_ctx {
    std::string name;
    ubus_object object{}; ///< its address identifies the object on both sides
    ubus_object_type type{};
    std::vector<ubus_method> methods;
    std::list<std::vector<blobmsg_policy>> policies;
    /// Looked up by what libubus passes, without a copy of it.
    std::map<std::string, client::method_policy, std::less<>> method_policies;
    /// Calls on their way to the application's loop, and some that have been settled. The loop
    /// thread only.
    std::vector<std::weak_ptr<incoming_call>> calls;
    std::size_t tidy_calls_at = 64; ///< the number of entries at which settled ones are dropped
};

/// The application's side of one published object. The flags are guarded by the table that holds
/// it; the rest does not change after the object was added.
struct object_ctx {
    bool active = true;    ///< incoming calls are handed to the handlers
    bool removing = false; ///< on its way out: invisible to further additions and removals
    std::string name;
    std::map<std::string, client::method_handler> handlers;
    std::shared_ptr<ubus_object_ctx> ubus_ctx;
};

/// The objects added and not yet removed. Safe from any thread. Objects leave the lock alive:
/// destroying one destroys the application's handlers.
class object_table {
public:
    using key = ubus_object*;

    /// Adds `object` unless one of its name, not being removed, is there already.
    bool insert(const std::shared_ptr<object_ctx>& object);

    /// Marks the object of this name, which is not being removed yet, as being removed, and
    /// returns it; null if there is none. It goes on serving calls unless `stop_serving`.
    std::shared_ptr<object_ctx> begin_removal(const std::string& name, bool stop_serving);

    /// The object of this key while it serves calls, else null.
    std::shared_ptr<object_ctx> find_active(key object);

    /// Stops every object from serving calls.
    void deactivate_all();

    /// Forgets the object, handing it to the caller to destroy.
    std::shared_ptr<object_ctx> take(key object);

    /// Forgets every object.
    std::map<key, std::shared_ptr<object_ctx>> take_all();

private:
    std::shared_ptr<object_ctx> find_by_name(const std::string& name) const;

    std::mutex lock_; ///< guards objects_ and the objects' flags; nothing is locked while held
    std::map<key, std::shared_ptr<object_ctx>> objects_;
};

} // namespace tarn
