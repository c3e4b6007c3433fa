/// Answering an incoming call: replies, and the one completion.
#include "client/client_impl.h"

#include "blob/message_size.h"
#include "tarn/error.h"

#include <new>
#include <stdexcept>
#include <utility>

namespace tarn {

client_impl::exchange_ctx::exchange_ctx(client_impl& owner,
                                        const std::shared_ptr<incoming_call>& call,
                                        std::multimap<std::string, blob::attr>&& arguments)
    : client::exchange_ctx(std::move(arguments))
    , client_(owner)
    , tracker_(owner.get_tracker())
    , connection_(owner.connection_tracker())
    , call_(call) {}

client_impl::exchange_ctx::~exchange_ctx() {
    exchange_ctx::respond(error::msg::success);
}

bool client_impl::exchange_ctx::expired() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return connection_.expired() || !client_.is_active();
}

utils::link client_impl::exchange_ctx::send(std::multimap<std::string, blob::attr> data,
                                            const completion_handler& handler) {
    if (tracker_.expired()) {
        return {};
    }
    std::weak_ptr<void> connection;
    std::shared_ptr<ubus_request_data> request;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!connection_.expired() && client_.is_active()) {
            connection = connection_;
            request = {call_, &call_->request};
        }
    }
    if (!request) {
        return client_.report_later(handler, error::msg::connection_failed);
    }
    const ticket entry = client_.send_handlers_.add(handler);
    try {
        utils::link pending = client_.send_handlers_.link_to(entry);
        client_.post_to_uloop([&client = client_, connection, request, data = std::move(data),
                               entry] { client.send_sync(connection, request, data, entry); });
        return pending;
    } catch (...) {
        client_.send_handlers_.take(entry);
        throw;
    }
}

void client_impl::exchange_ctx::respond(const std::error_code& status) {
    std::weak_ptr<void> connection;
    std::shared_ptr<incoming_call> call;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (connection_.expired() || !client_.is_active()) {
            return;
        }
        connection.swap(connection_);
        call.swap(call_);
    }
    client_.complete_call(call, status, connection);
}

void client_impl::send_sync(const std::weak_ptr<void>& connection,
                            const std::shared_ptr<ubus_request_data>& request,
                            const std::multimap<std::string, blob::attr>& data,
                            const ticket& entry) {
    ubus_context* const bus = usable_bus();
    if (connection.expired() || bus == nullptr) {
        // Nobody to tell, but the handler must not stay behind.
        post_from_uloop([this, entry] { send_handlers_.take(entry); });
        return;
    }
    std::error_code status;
    try {
        blob::buf buffer(data);
        // libubus does not check, and the daemon would drop the whole connection.
        status = message_size::reply(blob_len(buffer.native()->head)) > message_size::limit
                     ? error::msg::invalid_argument
                     : to_msg_error(ubus_send_reply(bus, request.get(), buffer.native()->head));
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    } catch (const std::logic_error&) {
        status = error::msg::parse_error; // a value that has no encoding
    } catch (const std::exception&) {
        status = error::msg::invalid_argument; // more than a message buffer can hold
    }
    end_unwritable_bus();
    post_from_uloop([this, status, entry] {
        if (const auto handler = send_handlers_.take(entry)) {
            handler(status);
        }
    });
}

void client_impl::complete_call(const std::shared_ptr<incoming_call>& call,
                                const std::error_code& status,
                                const std::weak_ptr<void>& connection,
                                const std::shared_ptr<ubus_object_ctx>& refused_by) noexcept {
    // Taken from the call, which the task is to keep alive: it must not keep itself.
    const auto completion = std::move(call->completion);
    completion->call = call;
    completion->status = status;
    completion->connection = connection;
    completion->refused_by = refused_by;
    post_ready(std::move(call->complete));
}

void client_impl::complete_sync(const call_completion& completion) {
    ubus_context* const bus = usable_bus();
    if (bus == nullptr) {
        return;
    }
    // A refusal comes from somebody who has not settled the call: the loop thread may have done so
    // meanwhile.
    const bool heard = completion.refused_by
                           ? ubus_objects_.count(&completion.refused_by->object) != 0 &&
                                 !completion.call->settled.exchange(true)
                           : !completion.connection.expired();
    if (heard) {
        ubus_complete_deferred_request(bus, &completion.call->request,
                                       to_ubus_msg_status(completion.status));
        end_unwritable_bus();
    }
}

} // namespace tarn
