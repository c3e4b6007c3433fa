/// What libubus does with received messages: answers go to their requests at once, calls and
/// unasked messages are kept while a synchronous request is in progress, and handed out later.
#include "dispatch.h"

#include <cstdlib>
#include <cstring>

#include "io.h"

namespace bus {
namespace {

// Pieces read from a busy socket before uloop's other descriptors are served.
constexpr int reads_per_event = 16;

// When kept messages are handed out if the socket brings nothing earlier, in milliseconds.
constexpr int pending_delay = 1;

// A message that came in while a synchronous request was in progress, and follows the record.
struct pending_message {
    list_head list;
    message_head head;
    blob_attr* blob() { return reinterpret_cast<blob_attr*>(this + 1); }
};

pending_message* first_pending(ubus_context& ctx) {
    return record_of<pending_message>(ctx.pending.next, offsetof(pending_message, list));
}

void postpone(ubus_context& ctx, const incoming& message, const attributes& given) {
    const std::size_t length = message.head().size - sizeof(ubus_msghdr);
    auto* kept = static_cast<pending_message*>(std::malloc(sizeof(pending_message) + length));
    if (kept == nullptr) {
        if (message.head().type == UBUS_MSG_INVOKE) {
            refuse_invoke(ctx, message.head(), given, UBUS_STATUS_NO_MEMORY);
        }
        return;
    }
    kept->head = message.head();
    std::memcpy(static_cast<void*>(kept->blob()), message.blob(), length);
    list_add_tail(&kept->list, &ctx.pending);
    if (ctx.sock.registered) {
        uloop_timeout_set(&ctx.pending_timer, pending_delay);
    }
}

// Those that run handlers of the application, which may wait inside for further messages. A handler
// counts as a synchronous request: what comes in meanwhile is kept until it has returned.
void handle_unasked(ubus_context& ctx, const message_head& head, const attributes& given) {
    ++ctx.stack_depth;
    switch (head.type) {
    case UBUS_MSG_INVOKE:
        handle_invoke(ctx, head, given);
        break;
    case UBUS_MSG_UNSUBSCRIBE:
        handle_lost_target(ctx, given);
        break;
    default:
        handle_subscribed(ctx, given);
        break;
    }
    --ctx.stack_depth;
}

// Its attributes have ids of their own, and are the application's to check.
void handle_monitored(ubus_context& ctx, const incoming& message) {
    if (ctx.monitor_cb != nullptr) {
        ctx.monitor_cb(&ctx, message.head().seq, message.blob());
    }
}

void handle(ubus_context& ctx, const incoming& message) {
    if (message.head().type == UBUS_MSG_MONITOR) {
        handle_monitored(ctx, message);
        return;
    }
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
    case UBUS_MSG_UNSUBSCRIBE:
    case UBUS_MSG_NOTIFY:
        if (ctx.stack_depth > 0) {
            postpone(ctx, message, given);
        } else {
            handle_unasked(ctx, message.head(), given);
        }
        break;
    default:
        // A daemon sends no others after its greeting.
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
        // Each of them may leave kept ones behind, which have come earlier than the next.
        do {
            if (ctx.stack_depth == 0) {
                hand_out_pending(ctx);
            }
        } while (handle_one(ctx));
        // After a hang-up uloop does not report the socket again: the rest must be read now.
        const bool last_event = sock->eof || sock->error;
        if (!last_event && (!more || reads >= reads_per_event)) {
            return;
        }
        const read_result result = read_input(ctx, reading::all, more);
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

void on_pending_timer(uloop_timeout* timer) {
    ubus_context& ctx = *record_of<ubus_context>(timer, offsetof(ubus_context, pending_timer));
    while (ctx.stack_depth == 0 && !list_empty(&ctx.pending)) {
        pending_message* kept = first_pending(ctx);
        list_del(&kept->list);
        attributes given;
        if (parse_attributes(kept->blob(), given)) {
            handle_unasked(ctx, kept->head, given);
        }
        std::free(kept);
    }
}

void hand_out_pending(ubus_context& ctx) {
    ctx.pending_timer.cb(&ctx.pending_timer);
}

void drop_pending(ubus_context& ctx) {
    while (!list_empty(&ctx.pending)) {
        pending_message* kept = first_pending(ctx);
        list_del(&kept->list);
        std::free(kept);
    }
}

void end_connection(ubus_context& ctx) {
    if (is_lost(ctx)) {
        return;
    }
    set_lost(ctx);
    ctx.sock.eof = true;

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
