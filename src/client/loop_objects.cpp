/// The loop thread's side of published objects, and of the calls that they serve.
#include "client/app_side.h"
#include "client/client_impl.h"
#include "client/loop_side.h"

#include "blob/message_size.h"
#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <stdexcept>
#include <utility>

namespace tarn {

namespace {

constexpr int answer_not_found = 4;        // UBUS_STATUS_NOT_FOUND
constexpr int answer_method_not_found = 3; // UBUS_STATUS_METHOD_NOT_FOUND

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
        records->calls.refuse(bus, answer_not_found);
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

int loop_side::on_call(ubus_object* object, ubus_request_data* request, const char* method,
                       blob_attr* msg) {
    assert_loop_side();
    const int refusal = accept_call(object, *request, method, msg);
    if (refusal != 0) {
        before_write(); // libubus answers with it
    }
    return refusal;
}

int loop_side::accept_call(ubus_object* object, ubus_request_data& request, const char* method,
                           blob_attr* msg) {
    if (!connection_ || method == nullptr) {
        return answer_not_found;
    }
    const auto published = connection_->objects.find(object);
    if (published == connection_->objects.end()) {
        return answer_not_found;
    }
    const std::shared_ptr<ubus_object_ctx>& records = published->second;
    const std::size_t found = records->find(method);
    if (found == records->described.size()) {
        return answer_method_not_found;
    }
    app_.counts().bytes_received.add(msg ? blob_len(msg) : 0);
    std::shared_ptr<served_call> call;
    try {
        const client::method_policy& policy = records->described[found].second;
        call = make_call(request, found, records);
        call->args =
            policy.empty() ? blob::utils::to_table(msg) : blob::utils::to_table(msg, policy);
        records->calls.note(call);
    } catch (const std::exception&) {
        // Or out of memory, which looks alike.
        return client_impl::to_ubus_msg_status(error::msg::parse_error);
    }
    bridge_.post_from_uloop(call->dispatch_task);
    // Last, so that a call that could not be passed on is answered with the error.
    request.deferred = true;
    return 0;
}

std::shared_ptr<served_call> loop_side::make_call(const ubus_request_data& request,
                                                  std::size_t method,
                                                  const std::shared_ptr<ubus_object_ctx>& records) {
    return make_counted<served_call>(app_, *this, connection_->id, request, method, records);
}

void loop_side::send_sync(send_operation& sending) {
    assert_loop_side();
    ubus_context* const bus = usable_bus();
    const served_call& call = *sending.call;
    if (bus == nullptr || !carries(call.connection)) {
        // Not reported, but the handler must still be released.
        sending.unreported = true;
        bridge_.post_from_uloop(sending.done_task);
        return;
    }
    before_write();
    std::size_t length = 0;
    try {
        blob::buf buffer(sending.data);
        length = blob_len(buffer.native()->head);
        // libubus does not check, and the daemon would drop the whole connection.
        sending.status =
            message_size::reply(length) > message_size::limit
                ? make_error_code(error::msg::invalid_argument)
                : client_impl::to_msg_error(ubus_send_reply(
                      bus, const_cast<ubus_request_data*>(&call.request), buffer.native()->head));
    } catch (const std::bad_alloc&) {
        sending.status = error::msg::no_memory;
    } catch (const std::logic_error&) {
        sending.status = error::msg::parse_error; // a value that has no encoding
    } catch (const std::exception&) {
        sending.status = error::msg::invalid_argument; // more than a message buffer can hold
    }
    end_unwritable_bus();
    if (!sending.status) {
        app_.counts().replies_sent.add();
        app_.counts().bytes_sent.add(length);
    }
    sending.data.clear();
    if (sending.active()) {
        bridge_.post_from_uloop(sending.done_task);
    }
}

void loop_side::complete_sync(served_call& call) {
    assert_loop_side();
    ubus_context* const bus = usable_bus();
    if (bus == nullptr || !carries(call.connection)) {
        return;
    }
    if (call.refusal &&
        (connection_->objects.count(&call.records->object) == 0 || call.settled.exchange(true))) {
        return; // withdrawn, and the call refused with that
    }
    if (!call.records && call.settled.exchange(true)) {
        return; // answered when the subscription ended
    }
    before_write();
    ubus_complete_deferred_request(bus, &call.request,
                                   client_impl::to_ubus_msg_status(call.status));
    end_unwritable_bus();
}

} // namespace tarn
