/* A process on plain libubus that does on the bus what its standard input says, one command a
 * line, and prints one line for each outcome and for all that it hears:
 *
 *   connect                    connects again, to a daemon that is there
 *   listen PATTERN             prints "listening", then "event ID N" for each
 *   send ID N                  sends an event with the field n; prints "sent STATUS"
 *   burst ID N                 sends N events with n from 0; prints "burst sent"
 *   publish NAME               publishes an object with the methods of the table below
 *   withdraw NAME
 *   blink NAME N               publishes and withdraws it N times; prints "blinked" in the end
 *   notify NAME METHOD N       notifies the subscribers; waits for no answers
 *   notify_burst NAME METHOD N notifies N times with n from 0; prints "burst notified"
 *   ask NAME METHOD N          waits for their answers: "answer STATUS", "reply N", "asked STATUS"
 *   subscribe PATH             prints "subscribed STATUS", then "notification METHOD N" for each
 *   unsubscribe                ends all subscriptions
 *   status STATUS              the status of answers from now on
 *
 * Prints "lost" when the connection ends. Ends with its input.
 */
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define LENGTH(array) ((int)(sizeof(array) / sizeof((array)[0])))

enum { most_objects = 8 };

static struct ubus_context* bus;
static struct blob_buf buffer;
static struct ubus_event_handler receiver;
static struct ubus_subscriber subscriber;
static int subscribing;
static int answer_status;

static const struct blobmsg_policy number_policy[] = {{.name = "n", .type = BLOBMSG_TYPE_INT32}};

static int number_in(struct blob_attr* msg) {
    struct blob_attr* field = NULL;
    if (msg) {
        blobmsg_parse(number_policy, 1, &field, blob_data(msg), blob_len(msg));
    }
    return field ? (int)blobmsg_get_u32(field) : -1;
}

static struct blob_attr* message(int n) {
    blob_buf_init(&buffer, 0);
    blobmsg_add_u32(&buffer, "n", (uint32_t)n);
    return buffer.head;
}

static int serve(struct ubus_context* context, struct ubus_object* object,
                 struct ubus_request_data* request, const char* method, struct blob_attr* msg) {
    (void)object;
    (void)method;
    ubus_send_reply(context, request, message(number_in(msg)));
    return 0;
}

static const struct blobmsg_policy all_types[] = {
    {.name = "anything", .type = BLOBMSG_TYPE_UNSPEC},
    {.name = "array", .type = BLOBMSG_TYPE_ARRAY},
    {.name = "table", .type = BLOBMSG_TYPE_TABLE},
    {.name = "text", .type = BLOBMSG_TYPE_STRING},
    {.name = "int64", .type = BLOBMSG_TYPE_INT64},
    {.name = "int32", .type = BLOBMSG_TYPE_INT32},
    {.name = "int16", .type = BLOBMSG_TYPE_INT16},
    {.name = "flag", .type = BLOBMSG_TYPE_BOOL},
    {.name = "real", .type = BLOBMSG_TYPE_DOUBLE},
};
static const struct ubus_method methods[] = {
    {.name = "types", .handler = serve, .policy = all_types, .n_policy = LENGTH(all_types)},
    {.name = "echo", .handler = serve, .policy = number_policy, .n_policy = 1},
    {.name = "bare", .handler = serve},
};

struct published {
    char name[64];
    struct ubus_object_type type;
    struct ubus_object object;
};
static struct published objects[most_objects];

static void on_subscribers(struct ubus_context* context, struct ubus_object* object) {
    (void)context;
    printf("subscribers %s %d\n", object->name, object->has_subscribers);
}

static struct published* find(const char* name) {
    for (int i = 0; i < most_objects; ++i) {
        if (strcmp(objects[i].name, name) == 0) {
            return &objects[i];
        }
    }
    return NULL;
}

static void publish(const char* name) {
    struct published* const free_one = find("");
    if (!free_one) {
        printf("published too many\n");
        return;
    }
    memset(free_one, 0, sizeof *free_one);
    snprintf(free_one->name, sizeof free_one->name, "%s", name);
    free_one->type.name = free_one->name;
    free_one->type.methods = methods;
    free_one->type.n_methods = LENGTH(methods);
    free_one->object.name = free_one->name;
    free_one->object.type = &free_one->type;
    free_one->object.methods = methods;
    free_one->object.n_methods = LENGTH(methods);
    free_one->object.subscribe_cb = on_subscribers;
    printf("published %d\n", ubus_add_object(bus, &free_one->object));
}

static void withdraw(const char* name) {
    struct published* const object = find(name);
    printf("withdrawn %d\n", object ? ubus_remove_object(bus, &object->object) : -1);
    if (object) {
        object->name[0] = '\0';
    }
}

static void on_event(struct ubus_context* context, struct ubus_event_handler* handler,
                     const char* id, struct blob_attr* msg) {
    (void)context;
    (void)handler;
    printf("event %s %d\n", id, number_in(msg));
}

static int on_notification(struct ubus_context* context, struct ubus_object* object,
                           struct ubus_request_data* request, const char* method,
                           struct blob_attr* msg) {
    (void)object;
    printf("notification %s %d\n", method, number_in(msg));
    if (answer_status == 0) {
        ubus_send_reply(context, request, message(number_in(msg) + 1));
    }
    return answer_status;
}

static void on_removal(struct ubus_context* context, struct ubus_subscriber* which, uint32_t id) {
    (void)context;
    (void)which;
    (void)id;
    printf("removed\n");
}

static void subscribe(const char* path) {
    uint32_t id = 0;
    if (!subscribing) {
        memset(&subscriber, 0, sizeof subscriber);
        subscriber.cb = on_notification;
        subscriber.remove_cb = on_removal;
        ubus_register_subscriber(bus, &subscriber);
        subscribing = 1;
    }
    const int found = ubus_lookup_id(bus, path, &id);
    printf("subscribed %d\n", found ? found : ubus_subscribe(bus, &subscriber, id));
}

static void on_answer(struct ubus_notify_request* request, int index, int status) {
    (void)request;
    (void)index;
    printf("answer %d\n", status);
}

static void on_reply(struct ubus_notify_request* request, int type, struct blob_attr* msg) {
    (void)request;
    (void)type;
    printf("reply %d\n", number_in(msg));
}

static void on_all_answers(struct ubus_notify_request* request, int index, int status) {
    (void)index;
    printf("asked %d\n", status);
    free(request);
}

static void ask(const char* name, const char* method, int n) {
    struct published* const object = find(name);
    struct ubus_notify_request* const request = calloc(1, sizeof *request);
    if (!object || !request) {
        printf("asked -1\n");
        free(request);
        return;
    }
    if (ubus_notify_async(bus, &object->object, method, message(n), request) != 0) {
        printf("asked -1\n");
        free(request);
        return;
    }
    request->status_cb = on_answer;
    request->data_cb = on_reply;
    request->complete_cb = on_all_answers;
    ubus_complete_request_async(bus, &request->req);
}

static void on_lost(struct ubus_context* context) {
    uloop_fd_delete(&context->sock);
    printf("lost\n");
}

static void connect_again(void) {
    if (bus) {
        ubus_free(bus);
        memset(objects, 0, sizeof objects);
        memset(&receiver, 0, sizeof receiver);
        subscribing = 0;
    }
    bus = ubus_connect(NULL);
    if (!bus) {
        printf("no bus\n");
        exit(1);
    }
    bus->connection_lost = on_lost;
    ubus_add_uloop(bus);
    printf("connected\n");
}

static void obey(char* line) {
    const char* const verb = strtok(line, " ");
    const char* const first = strtok(NULL, " ");
    const char* const second = strtok(NULL, " ");
    const char* const third = strtok(NULL, " ");
    if (!verb) {
        return;
    }
    if (strcmp(verb, "connect") == 0) {
        connect_again();
    } else if (!first) {
        if (strcmp(verb, "unsubscribe") == 0) {
            printf("unsubscribed %d\n", ubus_unregister_subscriber(bus, &subscriber));
            subscribing = 0;
        }
    } else if (strcmp(verb, "listen") == 0) {
        receiver.cb = on_event;
        printf("listening %d\n", ubus_register_event_handler(bus, &receiver, first));
    } else if (strcmp(verb, "publish") == 0) {
        publish(first);
    } else if (strcmp(verb, "withdraw") == 0) {
        withdraw(first);
    } else if (strcmp(verb, "subscribe") == 0) {
        subscribe(first);
    } else if (strcmp(verb, "status") == 0) {
        answer_status = atoi(first);
        printf("status %d\n", answer_status);
    } else if (!second) {
        printf("what?\n");
    } else if (strcmp(verb, "send") == 0) {
        printf("sent %d\n", ubus_send_event(bus, first, message(atoi(second))));
    } else if (strcmp(verb, "blink") == 0) {
        for (int n = 0; n < atoi(second); ++n) {
            publish(first);
            withdraw(first);
        }
        printf("blinked\n");
    } else if (strcmp(verb, "burst") == 0) {
        for (int n = 0; n < atoi(second); ++n) {
            ubus_send_event(bus, first, message(n));
        }
        printf("burst sent\n");
    } else if (!third || !find(first)) {
        printf("what?\n");
    } else if (strcmp(verb, "notify") == 0) {
        printf("notified %d\n",
               ubus_notify(bus, &find(first)->object, second, message(atoi(third)), -1));
    } else if (strcmp(verb, "notify_burst") == 0) {
        for (int n = 0; n < atoi(third); ++n) {
            ubus_notify(bus, &find(first)->object, second, message(n), -1);
        }
        printf("burst notified\n");
    } else if (strcmp(verb, "ask") == 0) {
        ask(first, second, atoi(third));
    }
}

static void on_input(struct uloop_fd* input, unsigned int events) {
    static char line[256];
    static size_t length;
    char c;
    (void)events;
    while (read(input->fd, &c, 1) == 1) {
        if (c != '\n' && length < sizeof line - 1) {
            line[length++] = c;
            continue;
        }
        line[length] = '\0';
        length = 0;
        obey(line);
        return; /* what else is there to read is seen in the next turn */
    }
    uloop_end();
}

int main(void) {
    static struct uloop_fd input = {.cb = on_input, .fd = STDIN_FILENO};
    setvbuf(stdout, NULL, _IOLBF, 0);
    uloop_init();
    connect_again();
    uloop_fd_add(&input, ULOOP_READ | ULOOP_BLOCKING);
    uloop_run();
    ubus_free(bus);
    blob_buf_free(&buffer);
    uloop_done();
    return 0;
}
