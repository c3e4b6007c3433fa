/* The other process on the bus in the model's sequences, on plain libubus.
 *
 *   model_peer SOCKET DESCRIPTOR
 *
 * It publishes the object "model.remote":
 *
 *   echo   {...}   answers with its own arguments
 *   late   {...}   answers with its own arguments after 1 ms
 *   three          answers with three replies, {"i": 1} to {"i": 3}
 *   refuse         refuses: permission denied
 *   never          never answers
 *
 * and takes orders from the stream socket DESCRIPTOR, a line each:
 *
 *   call ID PATH METHOD   calls; writes "done ID STATUS TOKEN", the integer field "token" of the
 * last reply, or -1 reset                 gives up the calls that have not ended; writes "reset"
 *
 * It writes "ready" there once other clients can see the object, and ends with the bus. */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* A call of somebody's that is answered later. */
struct late_call {
    struct uloop_timeout timer;
    struct ubus_request_data request;
    struct blob_attr* arguments;
};

/* A call of somebody else's object. */
struct own_call {
    struct ubus_request request; /* first: the callbacks have nothing else */
    struct own_call* next;
    int id;
    int token;
};

static struct ubus_context* bus;
static struct blob_buf reply;
static struct own_call* own_calls;
static int orders;

static void tell(const char* line) {
    (void)!write(orders, line, strlen(line));
}

static int echo(struct ubus_context* context, struct ubus_object* object,
                struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    return ubus_send_reply(context, request, message);
}

static void answer_late(struct uloop_timeout* timer) {
    struct late_call* call = (struct late_call*)timer;
    ubus_send_reply(bus, &call->request, call->arguments);
    ubus_complete_deferred_request(bus, &call->request, UBUS_STATUS_OK);
    free(call->arguments);
    free(call);
}

static int late(struct ubus_context* context, struct ubus_object* object,
                struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    struct late_call* call = calloc(1, sizeof(*call));
    if (call == NULL)
        return UBUS_STATUS_UNKNOWN_ERROR;
    call->timer.cb = answer_late;
    call->arguments = blob_memdup(message);
    ubus_defer_request(context, request, &call->request);
    uloop_timeout_set(&call->timer, 1);
    return UBUS_STATUS_OK;
}

static int three(struct ubus_context* context, struct ubus_object* object,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    (void)message;
    for (uint32_t i = 1; i <= 3; ++i) {
        blob_buf_init(&reply, 0);
        blobmsg_add_u32(&reply, "i", i);
        ubus_send_reply(context, request, reply.head);
    }
    return UBUS_STATUS_OK;
}

static int refuse(struct ubus_context* context, struct ubus_object* object,
                  struct ubus_request_data* request, const char* method,
                  struct blob_attr* message) {
    (void)context;
    (void)object;
    (void)request;
    (void)method;
    (void)message;
    return UBUS_STATUS_PERMISSION_DENIED;
}

static int never(struct ubus_context* context, struct ubus_object* object,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    (void)message;
    struct ubus_request_data forgotten;
    ubus_defer_request(context, request, &forgotten);
    return UBUS_STATUS_OK;
}

static struct ubus_method methods[] = {
    {.name = "echo", .handler = echo},   {.name = "late", .handler = late},
    {.name = "never", .handler = never}, {.name = "refuse", .handler = refuse},
    {.name = "three", .handler = three},
};

static struct ubus_object_type type = {.name = "model.remote", .methods = methods, .n_methods = 5};

static struct ubus_object object = {
    .name = "model.remote", .type = &type, .methods = methods, .n_methods = 5};

static const struct blobmsg_policy token_policy[] = {{"token", BLOBMSG_TYPE_INT32}};

static void on_reply(struct ubus_request* request, int kind, struct blob_attr* message) {
    (void)kind;
    struct blob_attr* token = NULL;
    blobmsg_parse(token_policy, 1, &token, blob_data(message), (unsigned int)blob_len(message));
    if (token != NULL)
        ((struct own_call*)request)->token = (int)blobmsg_get_u32(token);
}

static void tell_end(int id, int status, int token) {
    char line[64];
    snprintf(line, sizeof(line), "done %d %d %d\n", id, status, token);
    tell(line);
}

static void on_end(struct ubus_request* request, int status) {
    struct own_call* call = (struct own_call*)request;
    struct own_call** link = &own_calls;
    while (*link != call)
        link = &(*link)->next;
    *link = call->next;
    tell_end(call->id, status, call->token);
    free(call);
}

static void start_call(int id, const char* path, const char* method) {
    uint32_t object_id = 0;
    int status = ubus_lookup_id(bus, path, &object_id);
    struct own_call* call = calloc(1, sizeof(*call));
    if (status == UBUS_STATUS_OK && call != NULL) {
        blob_buf_init(&reply, 0);
        status = ubus_invoke_async(bus, object_id, method, reply.head, &call->request);
    }
    if (status != UBUS_STATUS_OK || call == NULL) {
        free(call);
        tell_end(id, status, -1);
        return;
    }
    call->id = id;
    call->token = -1;
    call->next = own_calls;
    own_calls = call;
    call->request.data_cb = on_reply;
    call->request.complete_cb = on_end;
    ubus_complete_request_async(bus, &call->request);
}

static void reset(void) {
    while (own_calls != NULL) {
        struct own_call* call = own_calls;
        own_calls = call->next;
        ubus_abort_request(bus, &call->request);
        free(call);
    }
    tell("reset\n");
}

static void obey(char* line) {
    int id = 0;
    char path[64];
    char method[64];
    if (sscanf(line, "call %d %63s %63s", &id, path, method) == 3)
        start_call(id, path, method);
    else
        reset();
}

static void on_orders(struct uloop_fd* fd, unsigned int events) {
    static char waiting[65536];
    static size_t size;
    (void)events;
    const ssize_t count = read(fd->fd, waiting + size, sizeof(waiting) - 1 - size);
    if (count <= 0) {
        uloop_end();
        return;
    }
    size += (size_t)count;
    waiting[size] = '\0';
    char* line = waiting;
    char* end;
    while ((end = strchr(line, '\n')) != NULL) {
        *end = '\0';
        obey(line);
        line = end + 1;
    }
    size = (size_t)(waiting + size - line);
    memmove(waiting, line, size);
}

static void lost(struct ubus_context* context) {
    (void)context;
    uloop_end();
}

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    orders = atoi(argv[2]);
    uloop_init();
    bus = ubus_connect(argv[1]);
    if (bus == NULL || ubus_add_object(bus, &object) != UBUS_STATUS_OK) {
        fprintf(stderr, "model_peer: no bus\n");
        return 1;
    }
    bus->connection_lost = lost;
    uloop_fd_add(&bus->sock, ULOOP_BLOCKING | ULOOP_READ);
    struct uloop_fd order_fd = {.cb = on_orders, .fd = orders};
    uloop_fd_add(&order_fd, ULOOP_READ);
    tell("ready\n");
    uloop_run();
    _exit(0);
}
