/* The object "demo" that the examples call, written on plain libubus: what a libtarn client meets
 * on the bus need not know libtarn.
 *
 *   echo   {...}           answers with its own arguments
 *   twice                  answers with two replies, {"i": 1} and {"i": 2}
 *   deny                   refuses: permission denied
 *   late   {"ms": int32}   answers {"done": "late"} after that many milliseconds (100 without)
 *   quit                   answers, then ends the service
 *
 * Prints "demo_service: ready" once other clients can see the object. */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>

/* A call that is answered later; all of them are listed, so that the end can free them. */
struct late_call {
    struct uloop_timeout timer;
    struct late_call* next;
    struct ubus_context* context;
    struct ubus_request_data request;
};

static struct blob_buf reply;
static struct late_call* late_calls;

static void forget(struct late_call* call) {
    struct late_call** link = &late_calls;
    while (*link != call)
        link = &(*link)->next;
    *link = call->next;
    free(call);
}

static int echo(struct ubus_context* context, struct ubus_object* object,
                struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    return ubus_send_reply(context, request, message);
}

static int twice(struct ubus_context* context, struct ubus_object* object,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    (void)message;
    for (uint32_t i = 1; i <= 2; ++i) {
        blob_buf_init(&reply, 0);
        blobmsg_add_u32(&reply, "i", i);
        ubus_send_reply(context, request, reply.head);
    }
    return UBUS_STATUS_OK;
}

static int deny(struct ubus_context* context, struct ubus_object* object,
                struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)context;
    (void)object;
    (void)request;
    (void)method;
    (void)message;
    return UBUS_STATUS_PERMISSION_DENIED;
}

static void answer_late(struct uloop_timeout* timer) {
    /* The timer is the first member. */
    struct late_call* call = (struct late_call*)timer;
    blob_buf_init(&reply, 0);
    blobmsg_add_string(&reply, "done", "late");
    ubus_send_reply(call->context, &call->request, reply.head);
    ubus_complete_deferred_request(call->context, &call->request, UBUS_STATUS_OK);
    forget(call);
}

static const struct blobmsg_policy late_policy[] = {{"ms", BLOBMSG_TYPE_INT32}};

static int late(struct ubus_context* context, struct ubus_object* object,
                struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)method;
    struct blob_attr* delay = NULL;
    blobmsg_parse(late_policy, 1, &delay, blob_data(message), (unsigned int)blob_len(message));

    struct late_call* call = calloc(1, sizeof(*call));
    if (call == NULL)
        return UBUS_STATUS_UNKNOWN_ERROR;
    call->timer.cb = answer_late;
    call->context = context;
    call->next = late_calls;
    late_calls = call;
    ubus_defer_request(context, request, &call->request);
    uloop_timeout_set(&call->timer, delay != NULL ? (int)blobmsg_get_u32(delay) : 100);
    return UBUS_STATUS_OK;
}

static struct ubus_context* quit_context;

/* Runs after the answer has been written. The daemon may drop what it finds together with the end
 * of the connection, so it has to have read the answer first: once it has answered the request that
 * follows, it has. */
static void quit_now(struct uloop_timeout* timer) {
    (void)timer;
    uint32_t id = 0;
    ubus_lookup_id(quit_context, "demo", &id);
    uloop_end();
}

static struct uloop_timeout quit_timer = {.cb = quit_now};

static int quit(struct ubus_context* context, struct ubus_object* object,
                struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)object;
    (void)request;
    (void)method;
    (void)message;
    quit_context = context;
    uloop_timeout_set(&quit_timer, 0);
    return UBUS_STATUS_OK;
}

static const struct blobmsg_policy echo_policy[] = {{"msg", BLOBMSG_TYPE_STRING},
                                                    {"n", BLOBMSG_TYPE_INT32}};

static struct ubus_method methods[] = {
    {.name = "echo", .handler = echo, .policy = echo_policy, .n_policy = 2},
    {.name = "deny", .handler = deny},
    {.name = "late", .handler = late, .policy = late_policy, .n_policy = 1},
    {.name = "quit", .handler = quit},
    {.name = "twice", .handler = twice},
};

static struct ubus_object_type type = {.name = "demo", .methods = methods, .n_methods = 5};

static struct ubus_object object = {
    .name = "demo", .type = &type, .methods = methods, .n_methods = 5};

static void lost(struct ubus_context* context) {
    (void)context;
    uloop_end();
}

int main(void) {
    uloop_init();
    struct ubus_context* context = ubus_connect(NULL);
    if (context == NULL) {
        fprintf(stderr, "demo_service: no bus\n");
        return 1;
    }
    context->connection_lost = lost;
    uloop_fd_add(&context->sock, ULOOP_BLOCKING | ULOOP_READ);
    const int status = ubus_add_object(context, &object);
    if (status != UBUS_STATUS_OK) {
        fprintf(stderr, "demo_service: cannot publish: %s\n", ubus_strerror(status));
        return 1;
    }
    printf("demo_service: ready\n");
    fflush(stdout);
    uloop_run();
    ubus_free(context);
    uloop_done();
    while (late_calls != NULL)
        forget(late_calls);
    blob_buf_free(&reply);
    return 0;
}
