/// A service on plain libubus.
#include "plain_service.h"

#include "commands.h"

#include <iostream>
#include <string>
#include <unistd.h>

namespace tarn::bench {
namespace {

const blobmsg_policy echo_policy[] = {{"n", BLOBMSG_TYPE_INT32}};

/// Reads and builds, as any service does, rather than send the arguments back as they are.
int echo(ubus_context* context, ubus_object* /*object*/, ubus_request_data* request,
         const char* /*method*/, blob_attr* message) {
    static blob_buf reply{};
    blob_attr* n = nullptr;
    blobmsg_parse(echo_policy, 1, &n, blob_data(message), static_cast<unsigned>(blob_len(message)));
    if (n == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    blob_buf_init(&reply, 0);
    blobmsg_add_u32(&reply, "n", blobmsg_get_u32(n));
    return ubus_send_reply(context, request, reply.head);
}

unsigned long muted = 0;

int mute(ubus_context* context, ubus_object* /*object*/, ubus_request_data* request,
         const char* /*method*/, blob_attr* /*message*/) {
    ubus_request_data kept{};
    ubus_defer_request(context, request, &kept);
    ++muted;
    return UBUS_STATUS_OK;
}

void on_command(uloop_fd* input, unsigned int /*events*/) {
    static std::string unread;
    char piece[256];
    const ssize_t size = ::read(input->fd, piece, sizeof(piece));
    if (size <= 0) {
        uloop_end();
        return;
    }
    unread.append(piece, static_cast<std::size_t>(size));
    for (auto end = unread.find('\n'); end != std::string::npos; end = unread.find('\n')) {
        answer(unread.substr(0, end), {{}, {}, [] {
                                           return muted;
                                       }});
        unread.erase(0, end + 1);
    }
}

} // namespace

int plain_serve(ubus_context* context, const char* name) {
    ubus_method methods[2]{};
    methods[0].name = "echo";
    methods[0].handler = echo;
    methods[1].name = "mute";
    methods[1].handler = mute;
    for (ubus_method& each : methods) {
        each.policy = echo_policy;
        each.n_policy = 1;
    }
    ubus_object_type type{};
    type.name = name;
    type.methods = methods;
    type.n_methods = 2;
    ubus_object object{};
    object.name = name;
    object.type = &type;
    object.methods = methods;
    object.n_methods = 2;
    const int status = ubus_add_object(context, &object);
    if (status != UBUS_STATUS_OK) {
        std::cerr << "plain_peer: cannot publish: " << ubus_strerror(status) << '\n';
        return 1;
    }
    context->connection_lost = [](ubus_context* /*lost*/) {
        uloop_end();
    };
    uloop_fd input{};
    input.fd = STDIN_FILENO;
    input.cb = on_command;
    uloop_fd_add(&input, ULOOP_READ | ULOOP_BLOCKING);
    say("ready");
    uloop_run();
    uloop_fd_delete(&input);
    return 0;
}

} // namespace tarn::bench
