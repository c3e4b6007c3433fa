/// The loop thread's side of the connection.
#include "client/app_side.h"
#include "client/await_reader.h"
#include "client/callback_gate.h"
#include "client/client_impl.h"
#include "client/handover.h"
#include "client/loop_side.h"
#include "uloop/default_signals.h"

#include <cstdlib>
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

/// Leaves the allocator of this thread, for the life of the object, no pages that it has already
/// got from the kernel. libubus allocates a buffer of 64 KiB when it connects, and wants it
/// cleared. Pages that are new need not be: then as much of the buffer takes memory as messages
/// ever use. glibc gets 132 KiB in advance for a thread and clears what it hands out of those.
class new_pages {
public:
    new_pages()
        : taken_(std::malloc(advance)) {}
    ~new_pages() { std::free(taken_); }
    new_pages(const new_pages&) = delete;
    new_pages& operator=(const new_pages&) = delete;

private:
    /// Less than what glibc maps on its own.
    static constexpr std::size_t advance = 127 * 1024;

    void* volatile taken_; // else a compiler may see that it is not used
};

bool is_ready(const ubus_context& bus, short events) {
    pollfd socket{bus.sock.fd, events, 0};
    return ::poll(&socket, 1, 0) > 0;
}

} // namespace

loop_side::loop_side(task_bridge& bridge, app_side& app)
    : bridge_(bridge)
    , app_(app)
    , bus_side_(bridge, app, *this) {}

void loop_side::run_batch() {
    assert_loop_side();
    task_queue batch;
    bridge_.take_batch(batch);
    bridge_.in_burst([&] {
        lookups_.clear();
        while (const task_queue::entry next = batch.pop()) {
            handover();
            next.work->run();
        }
        lookups_.clear();
    });
}

void loop_side::connect_sync(connection_ctx& attempt) {
    assert_loop_side();
    bridge_.flush(); // nothing that has arrived waits for a daemon that may not answer
    release_bus();
    {
        const misc::default_signals kept; // connecting initialises libubox's loop once more
        const new_pages for_buffer;
        bus_.reset(ubus_connect(nullptr));
    }
    connection_ = self_of(attempt);
    lookups_.clear();
    if (bus_) {
        watch_bus();
    }
    if (bus_) {
        restoring_ = true;
        bus_side_.restore();
        restoring_ = false;
    }
    attempt.connected = bus_ != nullptr;
    bridge_.post_from_uloop(attempt.result_task);
}

/// Has libubox's loop watch the connection. What libubus calls back during one turn of the socket
/// is one burst.
void loop_side::watch_bus() {
    bus_->connection_lost = &client_impl::connection_lost_handler;
    socket_handler_ = std::exchange(bus_->sock.cb, &loop_side::on_socket);
    pending_handler_ = std::exchange(bus_->pending_timer.cb, &loop_side::on_pending_messages);
    if (uloop_fd_add(&bus_->sock, ULOOP_BLOCKING | ULOOP_READ) < 0) {
        bus_.reset();
    }
}

void loop_side::on_socket(uloop_fd* socket, unsigned int events) {
    guard_callback([=] {
        loop_side& self = client_impl::get_instance({}).loop();
        self.bridge_.in_burst([&] { self.socket_handler_(socket, events); });
    });
}

void loop_side::take_postponed() {
    assert_loop_side();
    if (bus_ && bus_->stack_depth == 0) {
        pending_handler_(&bus_->pending_timer);
    }
}

void loop_side::on_pending_messages(uloop_timeout* timer) {
    guard_callback([=] {
        loop_side& self = client_impl::get_instance({}).loop();
        // libubus keeps what came inside of a request, and handles it also when the connection was
        // lost there. What it says is over by then, and has been reported so.
        if (self.bus_ && timer == &self.bus_->pending_timer) {
            self.bridge_.in_burst([&] { self.pending_handler_(timer); });
        }
    });
}

void loop_side::disconnect_sync(connection_ctx& ending) {
    assert_loop_side();
    if (connection_.get() == &ending) {
        release_bus();
        lookups_.clear();
        connection_.reset();
        retired_objects_.clear();
    }
    // Passed on with the requests and objects, not just their addresses: while the report is under
    // way no newer one can be allocated at the same address. Nothing is aborted or removed through
    // libubus, whose connection is gone.
    bridge_.post_from_uloop(ending.end_task);
}

void loop_side::release_bus() {
    if (bus_ && !bus_->sock.eof) {
        // What has arrived must not wait for the daemon.
        bridge_.flush();
        // The daemon drops what it finds together with the end of the connection.
        await_reader(bus_->sock.fd, delivery_limit);
    }
    if (bus_) {
        bus_side_.on_end();
    }
    bus_.reset();
    lost_bus_.reset();
}

void loop_side::free_lost_bus() {
    lost_bus_.reset();
}

void loop_side::on_connection_lost(ubus_context* context) {
    assert_loop_side();
    if (context != bus_.get()) {
        return;
    }
    // The loss may be noticed deep inside a synchronous libubus call, which goes on using the
    // context when this returns. So the connection only leaves the loop and the client here; it is
    // freed by a task, which the loop runs when no libubus function is on the stack.
    uloop_fd_delete(&context->sock);
    lost_bus_ = std::move(bus_);
    lookups_.clear();
    bus_side_.on_end();
    bridge_.post_within(connection_->free_lost_task);
    if (!restoring_) {
        bridge_.post_from_uloop(connection_->loss_task);
    }
}

/// Reads what has arrived, if anything, and delivers its results.
void loop_side::take_in() {
    sent_unread_ = 0;
    if (bus_ && is_ready(*bus_, POLLIN)) {
        ubus_handle_event(bus_.get());
        bridge_.flush();
    }
}

/// Before something is written, which waits while the daemon does not read: nothing that has
/// arrived waits with it.
void loop_side::before_write() {
    if (bridge_.holds_results() && bus_ && !is_ready(*bus_, POLLOUT)) {
        bridge_.flush();
    }
}

ubus_context* loop_side::caught_up_bus() {
    ubus_context* const bus = usable_bus();
    // Bounded, since others may send without a pause.
    for (int turn = 0; turn < most_turns && bus != nullptr && usable_bus() == bus; ++turn) {
        if (!is_ready(*bus, POLLIN)) {
            break;
        }
        ubus_handle_event(bus);
    }
    bridge_.flush(); // what has arrived does not wait with that request
    return usable_bus() == bus ? bus : nullptr;
}

ubus_context* loop_side::usable_bus() const {
    end_unwritable_bus();
    return bus_ && !bus_->sock.eof ? bus_.get() : nullptr;
}

void loop_side::end_unwritable_bus() const {
    if (bus_ && bus_->sock.eof) {
        // libubus marks the connection when a write fails, and does nothing else. If the daemon
        // keeps its end open the loss would never be reported.
        ::shutdown(bus_->sock.fd, SHUT_RDWR);
    }
}

void loop_side::drop_all() {
    bus_side_.drop_all();
    connection_.reset();
    retired_objects_.clear();
}

} // namespace tarn
