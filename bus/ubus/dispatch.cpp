/// What libubus does with received messages: answers go to their requests at once, calls wait while
/// a synchronous request is in progress.
#include "dispatch.h"

#include <cstdlib>
#include <cstring>

#include "io.h"

namespace bus {
namespace {

// Pieces read from a busy socket before uloop's other descriptors are served.
constexpr int reads_per_event = 16;

// A call that came in while a synchronous request was in progress. The message follows it.
struct pending_call {
    list_head list;
    message_head head;
    blob_attr* message() { return reinterpret_cast<blob_attr*>(this + 1); }
};

pending_call* first_pending(ubus_context& ctx) {
    return record_of<pending_call>(ctx.pending.next, offsetof(pending_call, list));
}

void postpone(ubus_context& ctx, const incoming& call, const attributes& given) {
    const std::size_t length = call.head().size - sizeof(ubus_msghdr);
    auto* kept = static_cast<pending_call*>(std::malloc(sizeof(pending_call) + length));
    if (kept == nullptr) {
        refuse_invoke(ctx, call.head(), given, UBUS_STATUS_NO_MEMORY);
        return;
    }
    kept->head = call.head();
    std::memcpy(static_cast<void*>(kept->message()), call.blob(), length);
    list_add_tail(&kept->list, &ctx.pending);
}

void handle(ubus_context& ctx, const incoming& message) {
    attributes given;
    if (!parse_attributes(message.blob(), given)) {
        break_connection(ctx);
        return;
    }
    switch (message.head().type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        handle_answer(ctx, message.head(), message.blob(), given);
        break;
    case UBUS_MSG_INVOKE:
        if (ctx.stack_depth > 0) {
            postpone(ctx, message, given);
        } else {
            handle_invoke(ctx, message.head(), given);
        }
        break;
    default:
        // For features that this library does not have.
        break;
    }
}

} // namespace

bool handle_one(ubus_context& ctx) {
    const incoming message(ctx);
    if (!message) {
        return false;
    }
    handle(ctx, message);
    return true;
}

void handle_buffered(ubus_context& ctx) {
    while (handle_one(ctx)) {}
}

void on_socket(uloop_fd* sock, unsigned int) {
    ubus_context& ctx = *record_of<ubus_context>(sock, offsetof(ubus_context, sock));
    bool more = true;
    for (int reads = 0;; ++reads) {
        handle_buffered(ctx);
        // After a hang-up uloop does not report the socket again: the rest must be read now.
        const bool last_event = sock->eof || sock->error;
        if (!last_event && (!more || reads >= reads_per_event)) {
            return;
        }
        const read_result result = read_input(ctx, more);
        if (result == read_result::nothing && !last_event) {
            return;
        }
        // A failed write is reported by `eof` alone: nothing may be left to read.
        if (result != read_result::data) {
            end_connection(ctx);
            return;
        }
    }
}

void run_pending(ubus_context& ctx) {
    while (!list_empty(&ctx.pending)) {
        pending_call* call = first_pending(ctx);
        list_del(&call->list);
        attributes given;
        if (parse_attributes(call->message(), given)) {
            handle_invoke(ctx, call->head, given);
        }
        std::free(call);
    }
}

void drop_pending(ubus_context& ctx) {
    while (!list_empty(&ctx.pending)) {
        pending_call* call = first_pending(ctx);
        list_del(&call->list);
        std::free(call);
    }
}

void end_connection(ubus_context& ctx) {
    if (is_lost(ctx)) {
        return;
    }
    set_lost(ctx);
    ctx.sock.eof = true;
    // No answer to these calls could reach its caller any more.
    drop_pending(ctx);

    // Set aside first: callbacks may abort others of them, and what they start anew fails at once.
    list_head ending;
    INIT_LIST_HEAD(&ending);
    for (list_head* at = ctx.requests.next; at != &ctx.requests;) {
        list_head* const next = at->next;
        if (!record_of<ubus_request>(at, offsetof(ubus_request, list))->blocked) {
            list_del(at);
            list_add_tail(at, &ending);
        }
        at = next;
    }
    while (!list_empty(&ending)) {
        finish_request(*record_of<ubus_request>(ending.next, offsetof(ubus_request, list)),
                       UBUS_STATUS_TIMEOUT);
    }
    if (ctx.connection_lost != nullptr) {
        ctx.connection_lost(&ctx);
    }
}

} // namespace bus
