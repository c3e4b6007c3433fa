/// The loop thread's side of served calls: taken from the bus, and answered.
#include "client/app_side.h"
#include "client/client_impl.h"
#include "client/loop_side.h"

#include "blob/message_size.h"
#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <stdexcept>

namespace tarn {

namespace {

constexpr int answer_not_found = 4;        // UBUS_STATUS_NOT_FOUND
constexpr int answer_method_not_found = 3; // UBUS_STATUS_METHOD_NOT_FOUND

} // namespace

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
