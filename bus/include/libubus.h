/// libubus, the client side of the bus, for C and C++: records, functions and callbacks under the
/// names that programs written for ubus use.
///
/// Nothing here is safe to use from two threads, not even with a context for each: the send buffer
/// and the whole of uloop belong to the process. Every record is the caller's and must stay where
/// it is while the library knows it. Functions that return int return a UBUS_STATUS_... number.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubusmsg.h"

/** Subscribers of one notification whose ends are reported each on its own. */
#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_context;
struct ubus_object;
struct ubus_request;
struct ubus_request_data;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_subscriber;
struct ubus_notify_request;

/** Handles one incoming call. What it returns becomes the call's status, unless it has deferred
 * the request. `msg` and the pointers in `req->acl` are valid during the call only. */
typedef int (*ubus_handler_t)(struct ubus_context* ctx, struct ubus_object* obj,
                              struct ubus_request_data* req, const char* method,
                              struct blob_attr* msg);
/** The object's first subscriber has come, or its last has gone: see `has_subscribers`. */
typedef void (*ubus_state_handler_t)(struct ubus_context* ctx, struct ubus_object* obj);
/** The object `id` that this one was subscribed to has left the bus. */
typedef void (*ubus_remove_handler_t)(struct ubus_context* ctx, struct ubus_subscriber* obj,
                                      uint32_t id);
/** Takes one event: its id as sent, and its table, which is valid during the call only. */
typedef void (*ubus_event_handler_t)(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                     const char* type, struct blob_attr* msg);
typedef void (*ubus_lookup_handler_t)(struct ubus_context* ctx, struct ubus_object_data* obj,
                                      void* priv);
typedef void (*ubus_connect_handler_t)(struct ubus_context* ctx);

/** Takes one data reply. `msg` is valid during the call only. */
typedef void (*ubus_data_handler_t)(struct ubus_request* req, int type, struct blob_attr* msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request* req, int fd);
/** Reports the end of an asynchronous request. The record may be freed in here. */
typedef void (*ubus_complete_handler_t)(struct ubus_request* req, int ret);
/** Reports how one subscriber has answered a notification: its place in `id`, and its status. As
 * `complete_cb`: all have answered, and both numbers are 0. */
typedef void (*ubus_notify_complete_handler_t)(struct ubus_notify_request* req, int idx, int ret);
typedef void (*ubus_notify_data_handler_t)(struct ubus_notify_request* req, int type,
                                           struct blob_attr* msg);
typedef bool (*ubus_new_object_handler_t)(struct ubus_context* ctx, struct ubus_subscriber* sub,
                                          const char* path);

/** Of the library alone. */
struct ubus_msghdr_buf {
    struct ubus_msghdr hdr;
    struct blob_attr* data;
};

struct ubus_method {
    const char* name; /* null: takes every method */
    ubus_handler_t handler;
    unsigned long mask; /* not used by the bundled bus, like tags */
    unsigned long tags;
    const struct blobmsg_policy* policy; /* published for readers; arguments are not checked */
    int n_policy;
};

struct ubus_object_type {
    const char* name;
    uint32_t id; /* 0 while the bus does not know the type */
    const struct ubus_method* methods;
    int n_methods;
};

struct ubus_object {
    struct avl_node avl;
    const char* name; /* null for an anonymous object, as is one without a type */
    uint32_t id;      /* 0 while it is not on the bus */
    const char* path;
    struct ubus_object_type* type;
    ubus_state_handler_t subscribe_cb; /* may be null */
    bool has_subscribers;
    const struct ubus_method* methods;
    int n_methods;
};

/** An anonymous object that notifications of others go to. Zero it before it is registered. */
struct ubus_subscriber {
    struct list_head list; /* not used by the bundled bus */
    struct ubus_object obj;
    ubus_handler_t cb;               /* answers a notification as a method would; may be null */
    ubus_remove_handler_t remove_cb; /* may be null */
    ubus_new_object_handler_t new_obj_cb; /* must be null in the bundled bus */
};

/** An object that events go to, anonymous unless `obj` has a name and a type. Zero it before it is
 * registered. */
struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests; /* asynchronous and waiting ones, the newest first */
    struct avl_tree objects;   /* published ones, by id */
    struct list_head pending;  /* what came in during a synchronous request and has a handler */
    struct uloop_fd sock;      /* `eof` is set when a write has failed or the peer hung up */
    /** Hands out what is pending. Set when something is kept while `sock` is in the loop; every way
     * to hand it out goes through its callback, which may be replaced by one that calls it. */
    struct uloop_timeout pending_timer;
    uint32_t local_id; /* as it came, big-endian */
    uint16_t request_seq;
    bool cancel_poll; /* not used by the bundled bus */
    int stack_depth;  /* synchronous requests and handlers in progress, one inside the other */
    /** The connection has ended; called once. With stack_depth above 0 a synchronous request is
     * still using the context: take `sock` out of the loop, but free the context later. */
    ubus_connect_handler_t connection_lost;
    /** Takes what ubus_monitor_start() asks for, at once, even during a synchronous request. `seq`
     * counts these messages, `data` holds the attributes UBUS_MONITOR_... */
    void (*monitor_cb)(struct ubus_context* ctx, uint32_t seq, struct blob_attr* data);
    struct ubus_msghdr_buf msgbuf; /* of the library alone, as are the next two */
    uint32_t msgbuf_data_len;
    int msgbuf_reduction_counter;
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char* path;
    struct blob_attr* signature;
};

/** The caller's user and group, and the object that is called. */
struct ubus_acl_key {
    const char* user;
    const char* group;
    const char* object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl; /* gone when the handler returns */
    bool deferred;
    int fd;
    int req_fd;
};

struct ubus_request {
    struct list_head list; /* null before the request is started */
    struct list_head pending;
    int status_code;
    bool status_msg; /* the final status is in status_code */
    bool blocked;    /* ubus_complete_request() waits for it */
    bool cancelled;
    bool notify;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb; /* gets the whole DATA message */
    ubus_data_handler_t data_cb;     /* gets the data of a reply */
    ubus_fd_handler_t fd_cb;
    ubus_complete_handler_t complete_cb;
    int fd;
    struct ubus_context* ctx;
    void* priv;
};

/** A notification that waits for its subscribers. `req` is its request: complete or abort that,
 * and leave its callbacks, which are the library's, alone. */
struct ubus_notify_request {
    struct ubus_request req;
    ubus_notify_complete_handler_t status_cb;
    ubus_notify_complete_handler_t complete_cb;
    ubus_notify_data_handler_t data_cb;
    uint32_t pending; /* bit n: id[n] has not answered yet */
    uint32_t
        id[UBUS_MAX_NOTIFY_PEERS + 1]; /* of the object, then of its subscribers; 0 ends them */
};

/** Connects to the daemon's socket at `path`; with a null path to the one named by the environment
 * variable UBUS_SOCKET, else to the compiled-in default. Blocks without a limit until the daemon
 * has said hello, and calls uloop_init(). Null on failure. */
struct ubus_context* ubus_connect(const char* path);
/** The same with a record of the caller's; undone with ubus_shutdown(). */
int ubus_connect_ctx(struct ubus_context* ctx, const char* path);
/** Closes the connection. Requests and objects are neither unlinked nor notified. */
void ubus_shutdown(struct ubus_context* ctx);
/** ubus_shutdown(), then frees a context made by ubus_connect(). */
void ubus_free(struct ubus_context* ctx);

const char* ubus_strerror(int error);

/** Has the running uloop serve the context. */
static inline void ubus_add_uloop(struct ubus_context* ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/** Handles everything that has arrived, for programs that watch `sock.fd` on their own. */
static inline void ubus_handle_event(struct ubus_context* ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

/** Looks up `path` (exact, `prefix*`, or null for all) and calls `cb` for each object found that
 * has a path and a type. Synchronous; other requests' callbacks may run inside. */
int ubus_lookup(struct ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv);
/** Stores the id of the object at `path`. Synchronous. `id` stays as it was if the daemon names
 * no object, even with status 0. */
int ubus_lookup_id(struct ubus_context* ctx, const char* path, uint32_t* id);

/** Calls a method and waits for its end, at most `timeout` milliseconds (0: no limit), passing each
 * data reply to `cb`. Descriptors cannot be passed: with `fd` >= 0 UBUS_STATUS_NOT_SUPPORTED. */
int ubus_invoke_fd(struct ubus_context* ctx, uint32_t obj, const char* method,
                   struct blob_attr* msg, ubus_data_handler_t cb, void* priv, int timeout, int fd);

static inline int ubus_invoke(struct ubus_context* ctx, uint32_t obj, const char* method,
                              struct blob_attr* msg, ubus_data_handler_t cb, void* priv,
                              int timeout) {
    return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

/** Initialises `req` and sends the call. Set the callbacks afterwards, then pass the record to one
 * of the ubus_complete_... functions. A null `msg` sends a call without fields. A message above
 * 1 MiB and a failed write give UBUS_STATUS_INVALID_ARGUMENT. */
int ubus_invoke_async_fd(struct ubus_context* ctx, uint32_t obj, const char* method,
                         struct blob_attr* msg, struct ubus_request* req, int fd);

static inline int ubus_invoke_async(struct ubus_context* ctx, uint32_t obj, const char* method,
                                    struct blob_attr* msg, struct ubus_request* req) {
    return ubus_invoke_async_fd(ctx, obj, method, msg, req, -1);
}

/** Waits for a started request, at most `timeout` milliseconds (0: no limit). */
int ubus_complete_request(struct ubus_context* ctx, struct ubus_request* req, int timeout);
/** Lets a started request go on; `complete_cb` is notified of its end. */
void ubus_complete_request_async(struct ubus_context* ctx, struct ubus_request* req);
/** Forgets a started request; no callback runs any more. */
void ubus_abort_request(struct ubus_context* ctx, struct ubus_request* req);

/** Publishes an object; its methods, type and name must stay valid. Synchronous. With an id that
 * another object of the context has already, it is not entered: calls go to the other one. */
int ubus_add_object(struct ubus_context* ctx, struct ubus_object* obj);
/** Withdraws an object. Synchronous. */
int ubus_remove_object(struct ubus_context* ctx, struct ubus_object* obj);

/** Publishes a subscriber, which then may be subscribed to any number of objects. Synchronous.
 * UBUS_STATUS_NOT_SUPPORTED if `new_obj_cb` is set. */
int ubus_register_subscriber(struct ubus_context* ctx, struct ubus_subscriber* obj);

/** Withdraws a subscriber, and so ends its subscriptions. Synchronous. */
static inline int ubus_unregister_subscriber(struct ubus_context* ctx,
                                             struct ubus_subscriber* obj) {
    return ubus_remove_object(ctx, &obj->obj);
}

/** Has the notifications of the object `id` go to `obj`, once for each call of this. Synchronous.
 * An object of the same context is an invalid argument. */
int ubus_subscribe(struct ubus_context* ctx, struct ubus_subscriber* obj, uint32_t id);
/** Ends one subscription. Synchronous. */
int ubus_unsubscribe(struct ubus_context* ctx, struct ubus_subscriber* obj, uint32_t id);

/** Calls a method of the daemon's monitor, `type` being "add" or "remove". Synchronous, at most one
 * second. */
int __ubus_monitor(struct ubus_context* ctx, const char* type);

/** Has the daemon send every message that passes to `monitor_cb`. For root only. */
static inline int ubus_monitor_start(struct ubus_context* ctx) {
    return __ubus_monitor(ctx, "add");
}

static inline int ubus_monitor_stop(struct ubus_context* ctx) {
    return __ubus_monitor(ctx, "remove");
}

/** Sends one data reply. UBUS_STATUS_NO_DATA if it cannot be written. The size is not checked: the
 * daemon disconnects a client that sends more than 1 MiB. */
int ubus_send_reply(struct ubus_context* ctx, struct ubus_request_data* req, struct blob_attr* msg);

/** Copies what answering later takes into `new_req` and keeps the handler's return value from
 * being sent. The pointers in the copy's `acl` are gone when the handler returns. */
static inline void ubus_defer_request(struct ubus_context* ctx, struct ubus_request_data* req,
                                      struct ubus_request_data* new_req) {
    (void)ctx;
    *new_req = *req;
    req->deferred = true;
}

/** Ends a deferred request with a status. */
void ubus_complete_deferred_request(struct ubus_context* ctx, struct ubus_request_data* req,
                                    int ret);

/** Sends a notification to all subscribers of an object of this context. With a `timeout` below 0
 * they are not to answer, and nothing is waited for; else waits for all of them, at most that many
 * milliseconds (0: no limit). */
int ubus_notify(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                struct blob_attr* msg, int timeout);

/** Initialises `req` and sends the notification. Set the callbacks of `req` afterwards, then pass
 * `req->req` to one of the ubus_complete_... functions. */
int ubus_notify_async(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                      struct blob_attr* msg, struct ubus_notify_request* req);

/** Sends an event to all others that listen. Synchronous: waits, without a limit, until the daemon
 * has taken it; that anybody has received it is not confirmed. */
int ubus_send_event(struct ubus_context* ctx, const char* id, struct blob_attr* data);

/** Publishes `ev` if it is not on the bus yet, and has the events go to it whose id is `pattern`,
 * or begins with it up to a final `*`. More patterns may follow; an event that matches several is
 * received once. Synchronous. */
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern);

/** Withdraws the handler with all its patterns. Synchronous. */
static inline int ubus_unregister_event_handler(struct ubus_context* ctx,
                                                struct ubus_event_handler* ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

#ifdef __cplusplus
}
#endif
