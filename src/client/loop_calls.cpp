/// The loop thread's side of calls of other processes' objects.
#include "client/app_side.h"
#include "client/client_impl.h"
#include "client/loop_side.h"

#include "blob/message_size.h"
#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <utility>

namespace tarn {

namespace {

/// The socket is read after so many calls that were sent without a look at it: the answers would
/// fill it, and the daemon's queue behind it.
constexpr int most_unread = 16;

/// With so many calls unanswered each waits for a look-up of its own again. That holds the calls to
/// the daemon's pace: daemons of before mid 2025 lose messages once they had to queue for a service
/// that falls behind.
constexpr std::size_t most_unpaced = 32;

} // namespace

void loop_side::invoke_sync(invoke_ctx& call) {
    assert_loop_side();
    std::error_code status;
    try {
        status = start_request(call);
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    }
    call.args.clear();
    if (status) {
        call.native().priv = nullptr;
        call.outcome = status;
        bridge_.post_from_uloop(call.done_task);
    } else if (++sent_unread_ >= most_unread) {
        take_in();
    }
}

/// The id of the object called `path`. A look-up is valid for all later calls of its batch: they
/// were requested before it was sent. One that fails is valid for no other call.
std::error_code loop_side::look_up(ubus_context* bus, const std::string& path, std::uint32_t& id) {
    const auto known = lookups_.find(path);
    if (known != lookups_.end() && connection_->requests.size() < most_unpaced) {
        id = known->second;
        return {};
    }
    // Nothing that has arrived waits for a daemon that may have stopped.
    bridge_.flush();
    const std::error_code status =
        client_impl::to_msg_error(ubus_lookup_id(bus, path.c_str(), &id));
    sent_unread_ = 0;
    if (usable_bus() != bus) {
        return error::msg::connection_failed; // lost while it was looking up
    }
    if (status) {
        return status;
    }
    if (id == 0) {
        return error::msg::not_found; // an object that this process may not see
    }
    lookups_[path] = id;
    return {};
}

std::error_code loop_side::start_request(invoke_ctx& call) {
    ubus_context* const bus = usable_bus();
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    const std::string& path = call.path;
    const std::string& method = call.method;
    // libubus would send the look-up of such a path, and the daemon drop the connection.
    if (message_size::lookup(path.size()) > message_size::limit ||
        message_size::call(method.size(), 0) > message_size::call_limit) {
        return error::msg::invalid_argument;
    }
    std::uint32_t id = call.object;
    if (const std::error_code status = id == 0 ? look_up(bus, path, id) : std::error_code()) {
        return status;
    }
    blob::buf buffer;
    try {
        buffer.assign(call.args);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        if (!buffer.overflowed()) {
            return error::msg::parse_error;
        }
        return error::msg::invalid_argument; // as for every call beyond the limit of the bus
    }
    if (message_size::call(method.size(), blob_len(buffer.native()->head)) >
        message_size::call_limit) {
        return error::msg::invalid_argument;
    }
    before_write();
    // The entry comes first: once libubus works on the request nothing may fail any more.
    if (!connection_->requests.insert(*bus, id, self_of<bus_request>(call))) {
        return error::msg::no_memory;
    }
    call.carried_by = connection_->id;
    ubus_request& request = call.native();
    const std::error_code started = client_impl::to_msg_error(
        ubus_invoke_async_fd(bus, id, method.c_str(), buffer.native()->head, &request, -1));
    if (started) {
        connection_->requests.erase(call);
        return usable_bus() == bus ? started : error::msg::connection_failed;
    }
    app_.counts().bytes_sent.add(blob_len(buffer.native()->head));
    // Only now: starting the request has initialised the record.
    request.priv = this;
    request.data_cb = &client_impl::invoke_req_data_handler;
    request.complete_cb = &client_impl::invoke_req_done_handler;
    ubus_complete_request_async(bus, &request);
    return {};
}

void loop_side::on_data(ubus_request& request, blob_attr* msg) {
    assert_loop_side();
    const auto record = request_table::find(request);
    if (!record) {
        return;
    }
    auto& call = static_cast<invoke_ctx&>(*record);
    app_.counts().bytes_received.add(msg ? blob_len(msg) : 0);
    // A reply that cannot be decoded counts as an empty one.
    std::error_code status;
    std::multimap<std::string, blob::attr> table;
    try {
        table = blob::utils::to_table(msg);
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    } catch (const std::exception&) {
        status = error::msg::parse_error;
    }
    if (!call.status) {
        call.status = status;
    }
    memory_reserve& reserve = bridge_.reserve();
    if (!call.tells_each) {
        std::list<blob::attr> reply;
        reserve.cover([&] {
            if (reply.empty()) {
                reply.emplace_back();
            }
            // Takes the table only when there is memory to hold it.
            reply.front().set<std::multimap<std::string, blob::attr>>(std::move(table));
        });
        call.replies.splice(call.replies.end(), reply);
        return;
    }
    std::shared_ptr<one_reply> told;
    reserve.cover([&] {
        if (!told) {
            told = make_counted<one_reply>(app_, self_of(call));
        }
        told->value.set<std::multimap<std::string, blob::attr>>(std::move(table));
    });
    bridge_.post_from_uloop(told->tell_task);
    if (request.ctx->stack_depth > 0) {
        bridge_.flush();
    }
}

void loop_side::on_done(ubus_request& request, int status) {
    assert_loop_side();
    const auto record = request_table::find(request);
    if (!record) {
        return;
    }
    const std::error_code completion = client_impl::to_msg_error(status);
    if (completion == error::msg::timeout && request.ctx->sock.eof) {
        // Not an answer: newer releases of libubus end the requests of a closing connection
        // this way, older ones leave them. Either way the disconnection that follows reports
        // them. libubus is done with the record, so it must not be aborted any more.
        request.priv = nullptr;
        return;
    }
    auto& call = static_cast<invoke_ctx&>(*record);
    connection_->requests.erase(call);
    call.outcome = completion;
    // Inside a synchronous request, which may still wait for a daemon that has stopped, nothing
    // waits for the end of the burst.
    const bool waiting = request.ctx->stack_depth > 0;
    bridge_.post_from_uloop(call.done_task);
    if (waiting) {
        bridge_.flush();
    }
}

void loop_side::abort_sync(invoke_ctx& call) {
    assert_loop_side();
    // A record that is not listed any more has completed. One that another connection has carried
    // ended with it: libubus must not see it again, since its list links may point into freed
    // memory.
    if (!carries(call.carried_by) || !connection_->requests.erase(call)) {
        return;
    }
    call.replies.clear();
    ubus_request& request = call.native();
    if (request.priv == nullptr || !bus_) {
        return;
    }
    ubus_abort_request(bus_.get(), &request);
    request.priv = nullptr;
}

} // namespace tarn
