/// The loop thread's side of published objects.
#include "client/app_side.h"
#include "client/client_impl.h"
#include "client/loop_side.h"

#include "blob/message_size.h"
#include "tarn/error.h"

#include <new>
#include <stdexcept>

namespace tarn {

namespace {

constexpr int answer_withdrawn = 4; // UBUS_STATUS_NOT_FOUND

} // namespace

void loop_side::add_object_sync(object_operation& addition) {
    assert_loop_side();
    lookups_.clear(); // they may name what is about to change
    addition.status = error::msg::connection_failed;
    if (ubus_context* const bus = caught_up_bus()) {
        try {
            addition.status = register_object(bus, addition.records);
        } catch (const std::bad_alloc&) {
            addition.status = error::msg::no_memory;
        }
    }
    bridge_.post_from_uloop(addition.done_task);
}

std::error_code loop_side::register_object(ubus_context* bus,
                                           const std::shared_ptr<ubus_object_ctx>& records) {
    try {
        records->build(&client_impl::method_callable);
    } catch (const std::logic_error&) {
        return error::msg::invalid_argument; // a policy type that no field can have
    }
    // The daemon drops a client that sends more, and libubus does not check.
    if (message_size::publication(records->name, records->described) > message_size::limit) {
        return error::msg::invalid_argument;
    }
    records->object.subscribe_cb = &loop_bus::subscribers_changed;
    // Listed before it is registered: a call may arrive at once.
    const std::shared_ptr<connection_ctx> connection = connection_;
    auto& published = connection->objects;
    const auto entry = published.emplace(&records->object, records).first;
    std::error_code status;
    try {
        // Kept until the connection ends if it fails half-way: libubus may know the object by then.
        retired_objects_.push_back(records);
        status = client_impl::to_msg_error(ubus_add_object(bus, &records->object));
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    }
    // The key is set when libubus enters the record, whatever becomes of the request after that.
    if (!status || records->object.avl.key == nullptr) {
        retired_objects_.remove(records);
    }
    if (status) {
        published.erase(entry);
        if (usable_bus() != bus) {
            return error::msg::connection_failed; // lost meanwhile, whatever libubus makes of it
        }
    }
    return status;
}

void loop_side::del_object_sync(object_operation& removal) {
    assert_loop_side();
    lookups_.clear(); // they may name what is about to change
    try {
        removal.status = unregister_object(removal.records, removal.stop_serving);
    } catch (const std::bad_alloc&) {
        removal.status = error::msg::no_memory;
    }
    bridge_.post_from_uloop(removal.done_task);
}

std::error_code loop_side::unregister_object(const std::shared_ptr<ubus_object_ctx>& records,
                                             bool stop_serving) {
    ubus_context* const bus = caught_up_bus();
    bool registered = false;
    if (connection_) {
        auto& published = connection_->objects;
        const auto entry = published.find(&records->object);
        registered = entry != published.end();
        if (registered) {
            // Kept until the connection ends unless libubus has released it: it may still access
            // it.
            bridge_.reserve().cover([&] { retired_objects_.push_back(records); });
            published.erase(entry);
            bus_side_.on_subscribers(records->name, false);
        }
    }
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    if (!registered) {
        return error::msg::not_found;
    }
    if (stop_serving) {
        // Once the object is withdrawn the daemon passes on no answer for it, and a refusal that
        // goes by way of the application's loop would come too late: the caller would wait forever.
        records->calls.refuse(bus, answer_withdrawn);
    }
    const std::error_code status =
        client_impl::to_msg_error(ubus_remove_object(bus, &records->object));
    if (!status) {
        retired_objects_.remove(records);
    } else if (usable_bus() != bus) {
        return error::msg::connection_failed; // lost meanwhile, whatever libubus makes of it
    }
    return status;
}

} // namespace tarn
