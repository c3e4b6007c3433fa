/// What libubus does with received messages. Internal to libubus.
#pragma once

#include <cstddef>
#include <cstdint>

#include "headers.h"
#include "message.h"

namespace bus {

/// The record that `node`, its member at `offset`, belongs to.
template <typename Record, typename Member>
Record* record_of(Member* node, std::size_t offset) {
    return reinterpret_cast<Record*>(reinterpret_cast<char*>(node) - offset);
}

/// Handles what has been read already, without reading more.
void handle_buffered(ubus_context& ctx);

/// Handles at most one message that has been read already; false if there was none.
bool handle_one(ubus_context& ctx);

/// Everything that happens when the connection is over, once: requests that ubus_complete_request()
/// does not wait for are completed with UBUS_STATUS_TIMEOUT, then connection_lost is called. It may
/// free the context if no synchronous request is in progress.
void end_connection(ubus_context& ctx);

/// Callback of the context's socket in uloop.
void on_socket(uloop_fd* sock, unsigned int events);

/// Callback of the context's pending_timer: handles what was kept during a synchronous request, in
/// the order of arrival. Does nothing inside of another one, or of a handler.
void on_pending_timer(uloop_timeout* timer);

/// The same by way of the timer's callback, which the application may have replaced.
void hand_out_pending(ubus_context& ctx);

/// Drops what was kept during a synchronous request.
void drop_pending(ubus_context& ctx);

/// The published object with this id; null if there is none.
ubus_object* find_object(ubus_context& ctx, std::uint32_t id);

/// The object that a subscriber of this context was subscribed to has left the bus.
void handle_lost_target(ubus_context& ctx, const attributes& given);

/// The first subscriber of an object of this context has come, or its last has gone.
void handle_subscribed(ubus_context& ctx, const attributes& given);

/// Runs the handler of one incoming call and answers it. A call of an object that is not there, or
/// without a method, is answered to peer 0: its caller receives nothing.
void handle_invoke(ubus_context& ctx, const message_head& head, const attributes& given);

/// Answers an incoming call without running its handler.
void refuse_invoke(ubus_context& ctx, const message_head& head, const attributes& given,
                   int status);

/// Passes a DATA or STATUS message to the request that waits for it.
void handle_answer(ubus_context& ctx, const message_head& head, blob_attr* message,
                   const attributes& given);

/// Whether the request waits for an answer that comes from this peer.
bool awaits_answer_of(ubus_request& request, std::uint32_t peer);

/// Passes a STATUS message to the notification that waits for it, and ends that if it waits for
/// nothing further.
void handle_notification_status(ubus_request& request, std::uint32_t peer, const attributes& given);

/// Unlinks the request and notifies its complete_cb.
void finish_request(ubus_request& request, int status);

} // namespace bus
