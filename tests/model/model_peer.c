/* The other process on the bus in the model's sequences, on plain libubus.
 *
 *   model_peer SOCKET DESCRIPTOR MEMORY
 *
 * It publishes the object "model.remote":
 *
 *   echo   {...}   answers with its own arguments
 *   late   {...}   answers with its own arguments after 1 ms
 *   three          answers with three replies, {"i": 1} to {"i": 3}
 *   refuse         refuses: permission denied
 *   never          never answers
 *
 * and takes orders from the stream socket DESCRIPTOR, a line each. All but the last have a number,
 * and are answered "done ID STATUS NUMBER":
 *
 *   call ID PATH METHOD    calls; the number is the field "token" of the last reply, or -1
 *   publish ID NAME        publishes model.x, model.y or model.z, unless it has done so
 *   withdraw ID NAME       withdraws it
 *   toggle ID COUNT        publishes model.x and model.y in turns, never both
 *   event ID NAME          sends an event with {"n": ID}
 *   notify ID NAME         notifies the subscribers of one of these objects: {"n": ID}
 *   ask ID NAME            the same; done when all have answered, the number says how many
 *   subscribe ID PATH      answers what it is notified of as `echo`, `late` or `never`
 *   unsubscribe ID PATH
 *   mode ID EXCLUSIVE EAGER   whether it never publishes both model.x and model.y; whether it asks
 *                          the first subscriber of an object at once, as ask 0
 *   reset                  gives up all of this; writes "reset"
 *
 * It writes "ready" there once other clients can see the object, "heard TOKEN" for each event
 * "model.own", and ends with the bus. The number of the last event that the daemon has taken is in
 * the shared memory MEMORY. */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
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

/* A notification whose subscribers are to answer. */
struct own_ask {
    struct ubus_notify_request request; /* first, as above */
    struct own_ask* next;
    int id;
    int answers;
};

/* What comes and goes. */
struct foreign {
    const char* name;
    int is_there;
    struct ubus_object_type type;
    struct ubus_object object;
};

/* A subscription to an object of the client's. */
struct own_subscription {
    const char* path;
    int registered;
    struct ubus_subscriber subscriber;
};

enum { foreign_count = 3, subscription_count = 3 };
static struct foreign foreign[foreign_count] = {
    {.name = "model.x"}, {.name = "model.y"}, {.name = "model.z"}};
static struct own_subscription subscriptions[subscription_count] = {
    {.path = "model.a"}, {.path = "model.b"}, {.path = "model.c"}};
static struct own_ask* own_asks;
static int exclusive;
static int eager;
static uint32_t* last_sent; /* shared */

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

/* --- objects that come and go --- */

static struct blob_attr* number(int n) {
    blob_buf_init(&reply, 0);
    blobmsg_add_u32(&reply, "n", (uint32_t)n);
    return reply.head;
}

static struct foreign* find(const char* name) {
    for (int i = 0; i < foreign_count; ++i)
        if (strcmp(foreign[i].name, name) == 0)
            return &foreign[i];
    return &foreign[0];
}

static void on_answer(struct ubus_notify_request* request, int index, int status) {
    (void)index;
    (void)status;
    ++((struct own_ask*)request)->answers;
}

static void on_all_answers(struct ubus_notify_request* request, int index, int status) {
    (void)index;
    (void)status;
    struct own_ask* asked = (struct own_ask*)request;
    struct own_ask** link = &own_asks;
    while (*link != asked)
        link = &(*link)->next;
    *link = asked->next;
    if (asked->id != 0)
        tell_end(asked->id, UBUS_STATUS_OK, asked->answers);
    free(asked);
}

static void ask(struct foreign* what, int id) {
    struct own_ask* asked = calloc(1, sizeof(*asked));
    if (asked == NULL || !what->is_there ||
        ubus_notify_async(bus, &what->object, "asked", number(id), &asked->request) != 0) {
        free(asked);
        if (id != 0)
            tell_end(id, UBUS_STATUS_NOT_FOUND, 0);
        return;
    }
    asked->id = id;
    asked->next = own_asks;
    own_asks = asked;
    asked->request.status_cb = on_answer;
    asked->request.complete_cb = on_all_answers;
    ubus_complete_request_async(bus, &asked->request.req);
}

static void on_subscribers(struct ubus_context* context, struct ubus_object* changed) {
    (void)context;
    for (int i = 0; i < foreign_count; ++i)
        if (eager && &foreign[i].object == changed && changed->has_subscribers)
            ask(&foreign[i], 0);
}

static int withdraw(struct foreign* what) {
    if (!what->is_there)
        return UBUS_STATUS_OK;
    what->is_there = 0;
    return ubus_remove_object(bus, &what->object);
}

static int publish(struct foreign* what) {
    if (what->is_there)
        return UBUS_STATUS_OK;
    if (exclusive && what != &foreign[2])
        withdraw(&foreign[what == &foreign[0] ? 1 : 0]);
    memset(&what->type, 0, sizeof(what->type));
    memset(&what->object, 0, sizeof(what->object));
    what->type.name = what->name;
    what->type.methods = methods;
    what->type.n_methods = 5;
    what->object.name = what->name;
    what->object.type = &what->type;
    what->object.methods = methods;
    what->object.n_methods = 5;
    what->object.subscribe_cb = on_subscribers;
    const int status = ubus_add_object(bus, &what->object);
    what->is_there = status == UBUS_STATUS_OK;
    return status;
}

static int toggle(int count) {
    int status = withdraw(&foreign[1]);
    for (int i = 0; i < count && status == UBUS_STATUS_OK; ++i) {
        status = withdraw(&foreign[(i + 1) % 2]);
        if (status == UBUS_STATUS_OK)
            status = publish(&foreign[i % 2]);
    }
    return status;
}

static int send_event(const char* id, int n) {
    const int status = ubus_send_event(bus, id, number(n));
    __atomic_store_n(last_sent, (uint32_t)n, __ATOMIC_RELEASE);
    return status;
}

/* --- subscriptions to the client's objects --- */

static int on_notification(struct ubus_context* context, struct ubus_object* subscriber,
                           struct ubus_request_data* request, const char* method,
                           struct blob_attr* message) {
    for (int i = 0; i < 5; ++i)
        if (strcmp(methods[i].name, method) == 0)
            return methods[i].handler(context, subscriber, request, method, message);
    return UBUS_STATUS_METHOD_NOT_FOUND;
}

static int unsubscribe(struct own_subscription* which) {
    if (!which->registered)
        return UBUS_STATUS_OK;
    which->registered = 0;
    return ubus_unregister_subscriber(bus, &which->subscriber);
}

static int subscribe(struct own_subscription* which) {
    uint32_t id = 0;
    int status = UBUS_STATUS_OK;
    if (!which->registered) {
        memset(&which->subscriber, 0, sizeof(which->subscriber));
        which->subscriber.cb = on_notification;
        status = ubus_register_subscriber(bus, &which->subscriber);
        which->registered = status == UBUS_STATUS_OK;
    }
    if (status == UBUS_STATUS_OK)
        status = ubus_lookup_id(bus, which->path, &id);
    return status == UBUS_STATUS_OK ? ubus_subscribe(bus, &which->subscriber, id) : status;
}

static struct own_subscription* subscription_to(const char* path) {
    for (int i = 0; i < subscription_count; ++i)
        if (strcmp(subscriptions[i].path, path) == 0)
            return &subscriptions[i];
    return &subscriptions[0];
}

static void on_event(struct ubus_context* context, struct ubus_event_handler* receiver,
                     const char* id, struct blob_attr* message) {
    (void)context;
    (void)receiver;
    (void)id;
    struct blob_attr* token = NULL;
    blobmsg_parse(token_policy, 1, &token, blob_data(message), (unsigned int)blob_len(message));
    char line[64];
    snprintf(line, sizeof(line), "heard %d\n", token ? (int)blobmsg_get_u32(token) : -1);
    tell(line);
}

static struct ubus_event_handler receiver = {.cb = on_event};

/* --- orders --- */

static void reset(void) {
    while (own_calls != NULL) {
        struct own_call* call = own_calls;
        own_calls = call->next;
        ubus_abort_request(bus, &call->request);
        free(call);
    }
    while (own_asks != NULL) {
        struct own_ask* asked = own_asks;
        own_asks = asked->next;
        ubus_abort_request(bus, &asked->request.req);
        free(asked);
    }
    for (int i = 0; i < foreign_count; ++i)
        withdraw(&foreign[i]);
    for (int i = 0; i < subscription_count; ++i)
        unsubscribe(&subscriptions[i]);
    exclusive = eager = 0;
    tell("reset\n");
}

static void obey(char* line) {
    int id = 0;
    char verb[16] = "";
    char first[64] = "";
    char second[64] = "";
    int status = UBUS_STATUS_OK;
    sscanf(line, "%15s %d %63s %63s", verb, &id, first, second);
    if (strcmp(verb, "reset") == 0) {
        reset();
        return;
    }
    if (strcmp(verb, "call") == 0) {
        start_call(id, first, second);
        return;
    }
    if (strcmp(verb, "ask") == 0) {
        ask(find(first), id);
        return;
    }
    if (strcmp(verb, "publish") == 0) {
        status = publish(find(first));
    } else if (strcmp(verb, "withdraw") == 0) {
        status = withdraw(find(first));
    } else if (strcmp(verb, "toggle") == 0) {
        status = toggle(atoi(first));
    } else if (strcmp(verb, "event") == 0) {
        status = send_event(first, id);
    } else if (strcmp(verb, "notify") == 0) {
        struct foreign* what = find(first);
        status = what->is_there ? ubus_notify(bus, &what->object, "told", number(id), -1)
                                : UBUS_STATUS_NOT_FOUND;
    } else if (strcmp(verb, "subscribe") == 0) {
        status = subscribe(subscription_to(first));
    } else if (strcmp(verb, "unsubscribe") == 0) {
        status = unsubscribe(subscription_to(first));
    } else if (strcmp(verb, "mode") == 0) {
        exclusive = atoi(first);
        eager = atoi(second);
        if (exclusive)
            withdraw(&foreign[1]);
    } else {
        status = UBUS_STATUS_METHOD_NOT_FOUND;
    }
    tell_end(id, status, 0);
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
    if (argc != 4)
        return 2;
    orders = atoi(argv[2]);
    last_sent =
        mmap(NULL, sizeof(*last_sent), PROT_READ | PROT_WRITE, MAP_SHARED, atoi(argv[3]), 0);
    if (last_sent == MAP_FAILED)
        return 2;
    uloop_init();
    bus = ubus_connect(argv[1]);
    if (bus == NULL || ubus_add_object(bus, &object) != UBUS_STATUS_OK ||
        ubus_register_event_handler(bus, &receiver, "model.own") != UBUS_STATUS_OK) {
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
