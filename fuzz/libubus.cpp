/// Fuzz target: what a daemon may send, through libubus: answers to requests that wait and to those
/// that do not, calls of objects, events, notifications and who is subscribed to them, copies for
/// the monitor, and the end of the connection.
#include "input.h"

#include "ubus/dispatch.h"

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::uint64_t sum = 0;

void touch(const blob_attr* message) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(message);
    for (std::size_t i = 0; i < blob_raw_len(message); ++i) {
        sum += bytes[i];
    }
}

int compare_ids(const void* left, const void* right, void*) {
    const auto a = *static_cast<const std::uint32_t*>(left);
    const auto b = *static_cast<const std::uint32_t*>(right);
    return a < b ? -1 : (a > b ? 1 : 0);
}

int on_call(ubus_context* ctx, ubus_object*, ubus_request_data* request, const char* method,
            blob_attr* message) {
    touch(message);
    sum += std::strlen(method);
    sum += request->acl.user != nullptr ? std::strlen(request->acl.user) : 0;
    sum += request->acl.group != nullptr ? std::strlen(request->acl.group) : 0;
    ubus_send_reply(ctx, request, message);
    if (blob_len(message) > 8) {
        ubus_request_data later;
        ubus_defer_request(ctx, request, &later);
        ubus_complete_deferred_request(ctx, &later, UBUS_STATUS_OK);
    }
    return UBUS_STATUS_OK;
}

void on_found(ubus_context*, ubus_object_data* found, void*) {
    sum += found->path != nullptr ? std::strlen(found->path) : 0;
    if (found->signature != nullptr) {
        touch(found->signature);
    }
}

void on_data(ubus_request*, int, blob_attr* message) {
    touch(message);
}

void on_event(ubus_context*, ubus_event_handler*, const char* id, blob_attr* table) {
    sum += std::strlen(id);
    touch(table);
}

void on_target_lost(ubus_context*, ubus_subscriber* subscriber, std::uint32_t target) {
    sum += subscriber->obj.id + target;
}

void on_subscribed(ubus_context*, ubus_object* object) {
    sum += object->has_subscribers ? 1 : 0;
}

void on_monitored(ubus_context*, std::uint32_t seq, blob_attr* data) {
    sum += seq;
    touch(data);
}

int lost;
void on_lost(ubus_context*) {
    ++lost;
}

constexpr int calls = 3;
int completed[calls];
void on_complete(ubus_request* request, int) {
    ++*static_cast<int*>(request->priv);
}

int notified;
void on_all_notified(ubus_notify_request*, int, int) {
    ++notified;
}
void on_one_notified(ubus_notify_request* request, int place, int) {
    fuzz::require(place > 0 && place <= UBUS_MAX_NOTIFY_PEERS, "who answers has a place");
    sum += request->id[place];
}
void on_notify_data(ubus_notify_request*, int, blob_attr* message) {
    touch(message);
}

/// A context on one end of a socket pair; the other end plays the daemon.
class connection {
public:
    connection() {
        int ends[2];
        fuzz::require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0 &&
                          ::fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0,
                      "a pair of sockets");
        INIT_LIST_HEAD(&ctx.requests);
        INIT_LIST_HEAD(&ctx.pending);
        avl_init(&ctx.objects, compare_ids, false, nullptr);
        ctx.sock.cb = bus::on_socket;
        ctx.pending_timer.cb = bus::on_pending_timer;
        ctx.sock.fd = ends[0];
        ctx.connection_lost = on_lost;
        ctx.monitor_cb = on_monitored;
        daemon_ = ends[1];
    }
    ~connection() {
        ubus_shutdown(&ctx);
        ::close(daemon_);
    }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    /// Fails only once libubus has closed the connection, as it does on bytes that are no message.
    void receive(const fuzz::input& bytes) const {
        fuzz::require(::write(daemon_, bytes.data(), bytes.size()) ==
                              static_cast<ssize_t>(bytes.size()) ||
                          ctx.sock.eof,
                      "the socket takes the input");
    }
    /// The daemon's answer to the next request, which publishes an object: its id, and a status.
    void publish(std::uint32_t id, std::uint32_t status) const {
        const auto seq = static_cast<std::uint16_t>(ctx.request_seq + 1);
        receive_number(UBUS_MSG_DATA, seq, UBUS_ATTR_OBJID, id);
        receive_number(UBUS_MSG_STATUS, seq, UBUS_ATTR_STATUS, status);
    }
    void hang_up() const { ::shutdown(daemon_, SHUT_WR); }

    ubus_context ctx{};

private:
    void receive_number(std::uint8_t type, std::uint16_t seq, std::uint8_t id,
                        std::uint32_t value) const {
        std::uint8_t bytes[bus::message_head_size + 8];
        bus::write_header(bytes, type, seq, 0);
        const std::uint32_t words[] = {htonl(12), htonl(std::uint32_t{id} << 24 | 8), htonl(value)};
        std::memcpy(bytes + sizeof(ubus_msghdr), words, sizeof words);
        receive(fuzz::input(bytes, sizeof bytes));
    }

    int daemon_ = -1;
};

void wait_inside(ubus_context& ctx, unsigned int how, ubus_object& published,
                 ubus_subscriber& subscriber) {
    static constexpr ubus_method method{"m", on_call, 0, 0, nullptr, 0};
    static ubus_object_type type{"t", 0, &method, 1};
    ubus_object object{};
    switch (how) {
    case 0:
        ubus_lookup(&ctx, "path", on_found, nullptr);
        break;
    case 1:
        ubus_invoke(&ctx, 1, "m", nullptr, on_data, nullptr, 1000);
        break;
    case 2:
        type.id = 0;
        object.name = "o";
        object.type = &type;
        if (ubus_add_object(&ctx, &object) == UBUS_STATUS_OK) {
            ubus_remove_object(&ctx, &object);
            if (object.id != 0) {
                avl_delete(&ctx.objects, &object.avl);
            }
        }
        break;
    case 4:
        ubus_notify(&ctx, &published, "up", nullptr, 1000);
        break;
    case 5:
        ubus_subscribe(&ctx, &subscriber, 9);
        break;
    case 6:
        ubus_send_event(&ctx, "e", nullptr);
        break;
    case 7:
        ubus_monitor_start(&ctx);
        break;
    default:
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool prepared = [] {
        ::signal(SIGPIPE, SIG_IGN);
        return uloop_init() == 0;
    }();
    fuzz::require(prepared, "a loop");
    fuzz::input rest(data, std::min<std::size_t>(size, 64 * 1024));
    const unsigned int how = rest.byte() % 8U;
    const std::size_t first = rest.byte();

    static constexpr ubus_method methods[] = {{"m", on_call, 0, 0, nullptr, 0}};
    ubus_object published{};
    published.id = 2;
    published.methods = methods;
    published.n_methods = 1;
    published.subscribe_cb = on_subscribed;
    published.avl.key = &published.id;
    ubus_request requests[calls];
    std::fill(std::begin(completed), std::end(completed), 0);
    lost = notified = 0;

    connection bus;
    avl_insert(&bus.ctx.objects, &published.avl);
    ubus_subscriber subscriber{};
    subscriber.cb = on_call;
    subscriber.remove_cb = on_target_lost;
    bus.publish(3, UBUS_STATUS_OK);
    fuzz::require(ubus_register_subscriber(&bus.ctx, &subscriber) == 0, "a subscriber");
    // Its id is taken although it is refused in the end, and no pattern is registered.
    ubus_event_handler listener{};
    listener.cb = on_event;
    bus.publish(4, UBUS_STATUS_PERMISSION_DENIED);
    fuzz::require(ubus_register_event_handler(&bus.ctx, &listener, "*") != 0 &&
                      listener.obj.id == 4,
                  "a listener");
    bus.ctx.request_seq = 0;
    // Sequence numbers 1 to 3, of the object 1.
    for (int i = 0; i < calls; ++i) {
        fuzz::require(ubus_invoke_async(&bus.ctx, 1, "m", nullptr, &requests[i]) == 0, "a call");
        requests[i].data_cb = on_data;
        requests[i].complete_cb = on_complete;
        requests[i].priv = &completed[i];
        ubus_complete_request_async(&bus.ctx, &requests[i]);
    }
    // Number 4, of the object 2.
    ubus_notify_request notification;
    fuzz::require(ubus_notify_async(&bus.ctx, &published, "up", nullptr, &notification) == 0,
                  "a notification");
    notification.status_cb = on_one_notified;
    notification.complete_cb = on_all_notified;
    notification.data_cb = on_notify_data;
    ubus_complete_request_async(&bus.ctx, &notification.req);
    bus.receive(rest.piece(first));
    ubus_handle_event(&bus.ctx);
    bus.receive(rest);
    bus.hang_up();
    wait_inside(bus.ctx, how, published, subscriber);
    ubus_handle_event(&bus.ctx);
    bus.ctx.sock.eof = true;
    ubus_handle_event(&bus.ctx);

    fuzz::require(lost == 1, "the end of the connection is told once");
    fuzz::require(notified == 1, "the notification ends once");
    for (const int times : completed) {
        fuzz::require(times == 1, "every call that was started ends once");
    }
    return 0;
}
