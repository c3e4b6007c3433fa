/// The life of a libubus context: connecting and disconnecting.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "dispatch.h"
#include "io.h"

namespace bus {
namespace {

int compare_ids(const void* left, const void* right, void*) {
    const auto a = *static_cast<const std::uint32_t*>(left);
    const auto b = *static_cast<const std::uint32_t*>(right);
    return a < b ? -1 : (a > b ? 1 : 0);
}

// The default of connection_lost: ends the loop, unless the socket is out of it already, as it is
// when the daemon has closed both directions.
void end_loop(ubus_context* ctx) {
    if (ctx->sock.registered) {
        uloop_end();
    }
}

const char* default_path() {
    const char* chosen = ::secure_getenv("UBUS_SOCKET");
    return chosen != nullptr && *chosen != '\0' ? chosen : TARN_BUS_SOCKET;
}

int open_socket(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) {
        return -1;
    }
    std::memcpy(address.sun_path, path, length);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int result = 0;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0 || ::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool receive_hello(ubus_context& ctx) {
    message_head hello;
    if (!read_hello(ctx, hello) || hello.type != UBUS_MSG_HELLO) {
        return false;
    }
    ctx.local_id = htobe32(hello.peer);
    return ctx.local_id != 0;
}

} // namespace
} // namespace bus

int ubus_connect_ctx(ubus_context* ctx, const char* path) {
    *ctx = ubus_context{};
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    avl_init(&ctx->objects, bus::compare_ids, false, nullptr);
    ctx->sock.cb = bus::on_socket;
    ctx->sock.fd = -1;
    ctx->pending_timer.cb = bus::on_pending_timer;
    ctx->connection_lost = bus::end_loop;
    uloop_init();

    ctx->sock.fd = bus::open_socket(path != nullptr ? path : bus::default_path());
    if (ctx->sock.fd < 0 || !bus::receive_hello(*ctx) || !bus::open_input(*ctx) ||
        !bus::reserve_send_buffer()) {
        ubus_shutdown(ctx);
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    return UBUS_STATUS_OK;
}

ubus_context* ubus_connect(const char* path) {
    auto* ctx = static_cast<ubus_context*>(std::calloc(1, sizeof(ubus_context)));
    if (ctx != nullptr && ubus_connect_ctx(ctx, path) != UBUS_STATUS_OK) {
        std::free(ctx);
        return nullptr;
    }
    return ctx;
}

void ubus_shutdown(ubus_context* ctx) {
    uloop_fd_delete(&ctx->sock);
    uloop_timeout_cancel(&ctx->pending_timer);
    bus::drop_pending(*ctx);
    bus::free_input(*ctx);
    bus::free_send_buffer();
    if (ctx->sock.fd >= 0) {
        ::close(ctx->sock.fd);
        ctx->sock.fd = -1;
    }
}

void ubus_free(ubus_context* ctx) {
    ubus_shutdown(ctx);
    std::free(ctx);
}

const char* ubus_strerror(int error) {
    static const char* const texts[__UBUS_STATUS_LAST] = {"Success",
                                                          "Invalid command",
                                                          "Invalid argument",
                                                          "Method not found",
                                                          "Not found",
                                                          "No response",
                                                          "Permission denied",
                                                          "Request timed out",
                                                          "Operation not supported",
                                                          "Unknown error",
                                                          "Connection failed",
                                                          "Out of memory",
                                                          "Parsing message data failed",
                                                          "System error"};
    if (error >= 0 && error < __UBUS_STATUS_LAST) {
        return texts[error];
    }
    static char unknown[32];
    std::snprintf(unknown, sizeof unknown, "Unknown error: %d", error);
    return unknown;
}
