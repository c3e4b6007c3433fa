/// The loop thread's side of the connection.
#include "client/client_impl.h"

#include "client/await_reader.h"
#include "client/callback_gate.h"
#include "tarn/error.h"
#include "tarn/uloop.h"
#include "uloop/default_signals.h"

#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace tarn {

namespace {

/// How long the end of a connection waits for a daemon that does not read. One that does has read
/// everything after microseconds.
constexpr std::chrono::milliseconds delivery_limit{500};

/// How often caught_up_bus() reads: more than what a socket and the daemon's queue behind it hold.
constexpr int most_turns = 100;

} // namespace

void client_impl::connect_sync(const std::weak_ptr<void>& connection,
                               const std::function<void(state, const std::error_code&)>& report) {
    release_bus();
    {
        const misc::default_signals kept; // connecting initialises libubox's loop once more
        bus_.reset(ubus_connect(nullptr));
    }
    if (bus_) {
        bus_token_ = connection;
        bus_->connection_lost = &client_impl::connection_lost_handler;
        if (uloop_fd_add(&bus_->sock, ULOOP_BLOCKING | ULOOP_READ) < 0) {
            bus_.reset();
        }
    }
    const state reached = bus_ ? state::connected : state::disconnected;
    const std::error_code code =
        bus_ ? std::error_code() : make_error_code(error::generic::unknown_error);
    with_reserve([&] { report(reached, code); });
}

void client_impl::disconnect_sync(const std::weak_ptr<void>& tracker) {
    release_bus();
    // The records are handed on, not just their addresses: while the report is under way no newer
    // request or object can come to lie at the same place. Nothing is aborted or removed through
    // libubus, whose connection is gone.
    post_from_uloop([this, tracker, dropped = requests_.take_all(),
                     withdrawn = std::exchange(ubus_objects_, {})] {
        on_disconnected(tracker, dropped, withdrawn);
    });
    retired_objects_.clear();
}

void client_impl::release_bus() {
    if (bus_ && !bus_->sock.eof) {
        // The daemon drops what it finds together with the end of the connection.
        await_reader(bus_->sock.fd, delivery_limit);
    }
    bus_.reset();
    lost_bus_.reset();
}

void client_impl::connection_lost_handler(ubus_context* context) {
    guard_callback([context] { get_instance({}).on_connection_lost(context); });
}

void client_impl::on_connection_lost(ubus_context* context) {
    if (context != bus_.get()) {
        return;
    }
    // The loss may be noticed deep inside a synchronous libubus call, which goes on using the
    // context when this returns. So the connection only leaves the loop and the client here; it is
    // freed by a task, which the loop runs when no libubus function is on the stack.
    uloop_fd_delete(&context->sock);
    lost_bus_ = std::move(bus_);
    with_reserve([this] { uloop::get_instance().post([this] { lost_bus_.reset(); }); });
    // Tied to this connection: when the application disconnects and connects again before it hears
    // of the loss, the loss must not end the new connection.
    with_reserve([this] {
        post_from_uloop([this, connection = bus_token_] { request_disconnect(connection); });
    });
}

ubus_context* client_impl::caught_up_bus() const {
    ubus_context* const bus = usable_bus();
    // Bounded, since others may send without a pause.
    for (int turn = 0; turn < most_turns && bus != nullptr && usable_bus() == bus; ++turn) {
        pollfd readable{bus->sock.fd, POLLIN, 0};
        if (::poll(&readable, 1, 0) <= 0) {
            break;
        }
        ubus_handle_event(bus);
    }
    return usable_bus() == bus ? bus : nullptr;
}

ubus_context* client_impl::usable_bus() const {
    end_unwritable_bus();
    return bus_ && !bus_->sock.eof ? bus_.get() : nullptr;
}

void client_impl::end_unwritable_bus() const {
    if (bus_ && bus_->sock.eof) {
        // libubus marks the connection when a write fails, and leaves it at that. If the daemon
        // keeps its end open nobody would ever report the loss.
        ::shutdown(bus_->sock.fd, SHUT_RDWR);
    }
}

} // namespace tarn
