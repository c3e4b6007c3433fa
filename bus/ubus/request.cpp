/// Requests of libubus: from the call that sends one to the callback that is notified of its end.
#include "request.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <poll.h>

namespace bus {
namespace {

using clock = std::chrono::steady_clock;

// Milliseconds as poll() takes them, rounded up; -1 without a limit.
int until(const clock::time_point* deadline) {
    if (deadline == nullptr) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, INT_MAX));
}

int wait_for(ubus_context& ctx, const ubus_request& request, const clock::time_point* deadline) {
    for (;;) {
        if (request.status_msg) {
            return request.status_code;
        }
        if (request.cancelled || is_lost(ctx)) {
            return request.cancelled ? UBUS_STATUS_NO_DATA : UBUS_STATUS_CONNECTION_FAILED;
        }
        if (handle_one(ctx)) {
            continue;
        }
        const bool late = deadline != nullptr && clock::now() >= *deadline;
        bool filled = false;
        // What follows the answer stays in the socket, where it wakes the loop.
        const read_result result = read_input(ctx, late ? reading::all : reading::message, filled);
        if (result == read_result::ended) {
            end_connection(ctx);
        } else if (result == read_result::nothing) {
            const int left = until(deadline);
            if (left == 0) {
                return UBUS_STATUS_TIMEOUT;
            }
            pollfd readable{ctx.sock.fd, POLLIN, 0};
            ::poll(&readable, 1, left);
        } else if (late) {
            // A stream of other messages must not hold up the time limit.
            handle_buffered(ctx);
            return request.status_msg ? request.status_code : int{UBUS_STATUS_TIMEOUT};
        }
    }
}

ubus_request* find_request(ubus_context& ctx, std::uint16_t seq, std::uint32_t peer) {
    for (list_head* at = ctx.requests.next; at != &ctx.requests; at = at->next) {
        auto* request = record_of<ubus_request>(at, offsetof(ubus_request, list));
        if (request->seq == seq && awaits_answer_of(*request, peer)) {
            return request;
        }
    }
    return nullptr;
}

struct lookup_call {
    ubus_lookup_handler_t handler;
    void* priv;
};

// The id of an object in the daemon's answer; null if there is none.
const blob_attr* id_told(blob_attr* message, attributes& given) {
    return parse_attributes(message, given) ? given[UBUS_ATTR_OBJID] : nullptr;
}

void on_found(ubus_request* request, int, blob_attr* message) {
    attributes given;
    if (id_told(message, given) == nullptr || given[UBUS_ATTR_OBJPATH] == nullptr ||
        given[UBUS_ATTR_OBJTYPE] == nullptr) {
        return;
    }
    ubus_object_data found{};
    found.id = get_u32(given[UBUS_ATTR_OBJID]);
    found.type_id = get_u32(given[UBUS_ATTR_OBJTYPE]);
    found.path = get_text(given[UBUS_ATTR_OBJPATH]);
    found.signature = const_cast<blob_attr*>(given[UBUS_ATTR_SIGNATURE]);
    const auto* call = static_cast<const lookup_call*>(request->priv);
    call->handler(request->ctx, &found, call->priv);
}

void store_id(ubus_request* request, int, blob_attr* message) {
    attributes given;
    if (const blob_attr* id = id_told(message, given)) {
        *static_cast<std::uint32_t*>(request->priv) = get_u32(id);
    }
}

int look_up(ubus_context& ctx, const char* path, ubus_data_handler_t each, void* priv) {
    ubus_request request;
    outgoing message;
    if (path != nullptr) {
        message.put_text(UBUS_ATTR_OBJPATH, path);
    }
    const int started = start_request(ctx, request, message, UBUS_MSG_LOOKUP, 0);
    if (started != UBUS_STATUS_OK) {
        return started;
    }
    request.raw_data_cb = each;
    request.priv = priv;
    return ubus_complete_request(&ctx, &request, 0);
}

} // namespace

int start_request(ubus_context& ctx, ubus_request& request, const outgoing& message,
                  std::uint8_t type, std::uint32_t peer) {
    request = ubus_request{};
    INIT_LIST_HEAD(&request.list);
    INIT_LIST_HEAD(&request.pending);
    request.ctx = &ctx;
    request.peer = peer;
    request.fd = -1;
    if (message.failed()) {
        return UBUS_STATUS_NO_MEMORY;
    }
    request.seq = ++ctx.request_seq;
    return message.send(ctx, type, request.seq, peer) ? UBUS_STATUS_OK
                                                      : UBUS_STATUS_INVALID_ARGUMENT;
}

void finish_request(ubus_request& request, int status) {
    list_del_init(&request.list);
    request.status_code = status;
    request.status_msg = true;
    if (request.complete_cb != nullptr) {
        // Its last use here: the callback may free it.
        request.complete_cb(&request, status);
    }
}

void handle_answer(ubus_context& ctx, const message_head& head, blob_attr* message,
                   const attributes& given) {
    ubus_request* request = find_request(ctx, head.seq, head.peer);
    if (request == nullptr) {
        return;
    }
    if (head.type == UBUS_MSG_STATUS && request->notify) {
        handle_notification_status(*request, head.peer, given);
    } else if (head.type == UBUS_MSG_STATUS) {
        finish_request(*request, static_cast<int>(get_u32(given[UBUS_ATTR_STATUS],
                                                          UBUS_STATUS_INVALID_ARGUMENT)));
    } else if (request->raw_data_cb != nullptr) {
        request->raw_data_cb(request, head.type, message);
    } else if (request->data_cb != nullptr && given[UBUS_ATTR_DATA] != nullptr) {
        request->data_cb(request, head.type, const_cast<blob_attr*>(given[UBUS_ATTR_DATA]));
    }
}

} // namespace bus

int ubus_invoke_async_fd(ubus_context* ctx, std::uint32_t obj, const char* method, blob_attr* msg,
                         ubus_request* req, int fd) {
    if (fd >= 0) {
        return UBUS_STATUS_NOT_SUPPORTED;
    }
    if (msg != nullptr && blob_pad_len(msg) > bus::longest_blob) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    bus::outgoing call;
    call.put_u32(UBUS_ATTR_OBJID, obj).put_text(UBUS_ATTR_METHOD, method);
    call.put_nested(UBUS_ATTR_DATA, msg);
    if (!call.failed() && call.too_long()) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return bus::start_request(*ctx, *req, call, UBUS_MSG_INVOKE, obj);
}

void ubus_complete_request_async(ubus_context* ctx, ubus_request* req) {
    list_add(&req->list, &ctx->requests);
}

int ubus_complete_request(ubus_context* ctx, ubus_request* req, int timeout) {
    const auto deadline = bus::clock::now() + std::chrono::milliseconds(timeout);
    ubus_complete_request_async(ctx, req);
    req->blocked = true;
    ++ctx->stack_depth;
    const int status = bus::wait_for(*ctx, *req, timeout > 0 ? &deadline : nullptr);
    list_del_init(&req->list);
    --ctx->stack_depth;
    // Outside of the loop no timer hands out what was kept.
    if (ctx->stack_depth == 0 && !ctx->sock.registered) {
        bus::hand_out_pending(*ctx);
    }
    return status;
}

void ubus_abort_request(ubus_context*, ubus_request* req) {
    if (list_empty(&req->list)) {
        return;
    }
    req->cancelled = true;
    list_del_init(&req->list);
}

int ubus_invoke_fd(ubus_context* ctx, std::uint32_t obj, const char* method, blob_attr* msg,
                   ubus_data_handler_t cb, void* priv, int timeout, int fd) {
    ubus_request request;
    const int started = ubus_invoke_async_fd(ctx, obj, method, msg, &request, fd);
    if (started != UBUS_STATUS_OK) {
        return started;
    }
    request.data_cb = cb;
    request.priv = priv;
    return ubus_complete_request(ctx, &request, timeout);
}

int ubus_lookup(ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv) {
    bus::lookup_call call{cb, priv};
    return bus::look_up(*ctx, path, bus::on_found, &call);
}

int ubus_lookup_id(ubus_context* ctx, const char* path, std::uint32_t* id) {
    return bus::look_up(*ctx, path, bus::store_id, id);
}
