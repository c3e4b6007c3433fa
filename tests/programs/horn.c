/* The object "horn" on plain libubus, for tests of the command-line client.
 *
 *   sound  {...}   sends its own arguments to the subscribers as the notification "sounded", and
 *                  does not wait for them; then answers
 *   ask    {...}   the same as the notification "asked", waits for the subscribers, and answers
 *                  with the status of each as {"status": N}
 *   types  {...}   has a field of every type in its policy, and answers with a field of every type
 *   flood  {"count": int32}  sends that many events "flood", {"n": 1} and so on
 *   quiet          has no policy
 *
 * Prints "horn: ready" once other clients can see the object, "horn: subscribed" when the first
 * subscriber has come and "horn: unsubscribed" when the last has gone. Serves until it is killed.
 * Started with a path, it publishes the object under that. */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>

static struct blob_buf reply;
static struct ubus_object object;

static int sound(struct ubus_context* context, struct ubus_object* self,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)request;
    (void)method;
    return ubus_notify(context, self, "sounded", message, -1);
}

/* A question that waits for the subscribers, and the call that asked it. */
struct question {
    struct ubus_notify_request notification;
    struct ubus_context* context;
    struct ubus_request_data call;
};

static void answered(struct ubus_notify_request* notification, int index, int status) {
    (void)index;
    /* The notification is the first member. */
    struct question* asked = (struct question*)notification;
    blob_buf_init(&reply, 0);
    blobmsg_add_u32(&reply, "status", (uint32_t)status);
    ubus_send_reply(asked->context, &asked->call, reply.head);
}

static void all_answered(struct ubus_notify_request* notification, int index, int status) {
    (void)index;
    (void)status;
    struct question* asked = (struct question*)notification;
    ubus_complete_deferred_request(asked->context, &asked->call, UBUS_STATUS_OK);
    free(asked);
}

static int ask(struct ubus_context* context, struct ubus_object* self,
               struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)method;
    struct question* asked = calloc(1, sizeof(*asked));
    if (asked == NULL)
        return UBUS_STATUS_UNKNOWN_ERROR;
    const int status = ubus_notify_async(context, self, "asked", message, &asked->notification);
    if (status != UBUS_STATUS_OK) {
        free(asked);
        return status;
    }
    asked->context = context;
    asked->notification.status_cb = answered;
    asked->notification.complete_cb = all_answered;
    ubus_defer_request(context, request, &asked->call);
    ubus_complete_request_async(context, &asked->notification.req);
    return UBUS_STATUS_OK;
}

static int types(struct ubus_context* context, struct ubus_object* self,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)self;
    (void)method;
    (void)message;
    blob_buf_init(&reply, 0);
    blobmsg_add_u8(&reply, "a_flag", 1);
    blobmsg_add_u8(&reply, "b_byte", 200);
    blobmsg_add_u16(&reply, "c_int16", 65535);
    blobmsg_add_u32(&reply, "d_int32", 4294967295U);
    blobmsg_add_u64(&reply, "e_int64", 18446744073709551615ULL);
    blobmsg_add_double(&reply, "f_double", 0.1);
    blobmsg_add_double(&reply, "g_whole", 3.0);
    blobmsg_add_string(&reply, "h_text", "say \"hi\"\n/\\ \xc3\xa9 \x01 \x7f");
    void* nest = blobmsg_open_array(&reply, "i_list");
    blobmsg_add_u32(&reply, NULL, 1);
    blobmsg_add_string(&reply, NULL, "two");
    void* empty = blobmsg_open_table(&reply, NULL);
    blobmsg_close_table(&reply, empty);
    blobmsg_close_array(&reply, nest);
    nest = blobmsg_open_table(&reply, "j_table");
    blobmsg_add_u32(&reply, "n", 1);
    blobmsg_close_table(&reply, nest);
    nest = blobmsg_open_array(&reply, "k_empty");
    blobmsg_close_array(&reply, nest);
    blobmsg_add_field(&reply, BLOBMSG_TYPE_UNSPEC, "l_nothing", NULL, 0);
    return ubus_send_reply(context, request, reply.head);
}

static const struct blobmsg_policy flood_policy[] = {{"count", BLOBMSG_TYPE_INT32}};

static int flood(struct ubus_context* context, struct ubus_object* self,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)self;
    (void)request;
    (void)method;
    struct blob_attr* count = NULL;
    blobmsg_parse(flood_policy, 1, &count, blob_data(message), (unsigned int)blob_len(message));
    if (count == NULL)
        return UBUS_STATUS_INVALID_ARGUMENT;
    for (uint32_t n = 1; n <= blobmsg_get_u32(count); ++n) {
        blob_buf_init(&reply, 0);
        blobmsg_add_u32(&reply, "n", n);
        const int status = ubus_send_event(context, "flood", reply.head);
        if (status != UBUS_STATUS_OK)
            return status;
    }
    return UBUS_STATUS_OK;
}

static int quiet(struct ubus_context* context, struct ubus_object* self,
                 struct ubus_request_data* request, const char* method, struct blob_attr* message) {
    (void)context;
    (void)self;
    (void)request;
    (void)method;
    (void)message;
    return UBUS_STATUS_OK;
}

static void subscribers_changed(struct ubus_context* context, struct ubus_object* self) {
    (void)context;
    puts(self->has_subscribers ? "horn: subscribed" : "horn: unsubscribed");
    fflush(stdout);
}

static const struct blobmsg_policy sound_policy[] = {
    {"text", BLOBMSG_TYPE_STRING},
    {"loud", BLOBMSG_TYPE_BOOL},
};

static const struct blobmsg_policy types_policy[] = {
    {"z_any", BLOBMSG_TYPE_UNSPEC},    {"y_array", BLOBMSG_TYPE_ARRAY},
    {"x_table", BLOBMSG_TYPE_TABLE},   {"w_string", BLOBMSG_TYPE_STRING},
    {"v_int64", BLOBMSG_TYPE_INT64},   {"u_int32", BLOBMSG_TYPE_INT32},
    {"t_int16", BLOBMSG_TYPE_INT16},   {"s_bool", BLOBMSG_TYPE_BOOL},
    {"r_double", BLOBMSG_TYPE_DOUBLE},
};

static const struct ubus_method methods[] = {
    {.name = "sound", .handler = sound, .policy = sound_policy, .n_policy = 2},
    {.name = "ask", .handler = ask},
    {.name = "types", .handler = types, .policy = types_policy, .n_policy = 9},
    {.name = "flood", .handler = flood, .policy = flood_policy, .n_policy = 1},
    {.name = "quiet", .handler = quiet},
};

static struct ubus_object_type type = {.name = "horn", .methods = methods, .n_methods = 5};

int main(int argc, char** argv) {
    uloop_init();
    struct ubus_context* context = ubus_connect(NULL);
    if (context == NULL) {
        fprintf(stderr, "horn: no bus\n");
        return 1;
    }
    ubus_add_uloop(context);
    object.name = argc > 1 ? argv[1] : "horn";
    object.type = &type;
    object.methods = methods;
    object.n_methods = type.n_methods;
    object.subscribe_cb = subscribers_changed;
    const int status = ubus_add_object(context, &object);
    if (status != UBUS_STATUS_OK) {
        fprintf(stderr, "horn: %s\n", ubus_strerror(status));
        return 1;
    }
    puts("horn: ready");
    fflush(stdout);
    uloop_run();
    ubus_free(context);
    uloop_done();
    blob_buf_free(&reply);
    return 0;
}
