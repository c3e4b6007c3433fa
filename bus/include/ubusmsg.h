/// The numbers of the bus's wire protocol, for libubus, the daemon and their tests.
///
/// A message is an 8-byte header (struct ubus_msghdr, big-endian) followed by one blob of id 0
/// whose children are the message's attributes.
#pragma once

#include <stdint.h>

/* The daemon's own objects. They are called like any other, and no look-up returns them. */
#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_ACL 2 /* not there in the bundled bus */
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX 1024 /* ids below are the daemon's */

struct ubus_msghdr {
    uint8_t version; /* always 0 */
    uint8_t type;    /* enum ubus_msg_type */
    uint16_t seq;    /* the requester's running number; answers repeat it */
    uint32_t peer;   /* the other side: an object's or a client's id, or 0 */
} __attribute__((packed, aligned(4)));

enum ubus_msg_type {
    UBUS_MSG_HELLO,
    UBUS_MSG_STATUS,
    UBUS_MSG_DATA,
    UBUS_MSG_PING,
    UBUS_MSG_LOOKUP,
    UBUS_MSG_INVOKE,
    UBUS_MSG_ADD_OBJECT,
    UBUS_MSG_REMOVE_OBJECT,
    UBUS_MSG_SUBSCRIBE,
    UBUS_MSG_UNSUBSCRIBE,
    UBUS_MSG_NOTIFY,
    UBUS_MSG_MONITOR,
    __UBUS_MSG_LAST
};

enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC,
    UBUS_ATTR_STATUS,      /* int32 */
    UBUS_ATTR_OBJPATH,     /* string */
    UBUS_ATTR_OBJID,       /* int32 */
    UBUS_ATTR_METHOD,      /* string */
    UBUS_ATTR_OBJTYPE,     /* int32 */
    UBUS_ATTR_SIGNATURE,   /* nested: one blobmsg table per method */
    UBUS_ATTR_DATA,        /* nested: the blobmsg fields of a call or a reply */
    UBUS_ATTR_TARGET,      /* int32 */
    UBUS_ATTR_ACTIVE,      /* int8 */
    UBUS_ATTR_NO_REPLY,    /* int8 */
    UBUS_ATTR_SUBSCRIBERS, /* nested: one int32 of blob id 0 per subscriber */
    UBUS_ATTR_USER,        /* string */
    UBUS_ATTR_GROUP,       /* string */
    UBUS_ATTR_MAX
};

/* The attributes of a MONITOR message, by blob id. */
enum ubus_monitor_attr {
    UBUS_MONITOR_CLIENT, /* int32: whose message it is */
    UBUS_MONITOR_PEER,   /* int32, from its header, like SEQ and TYPE */
    UBUS_MONITOR_SEND,   /* int8: 0 the client has sent it, 1 it goes to the client */
    UBUS_MONITOR_SEQ,    /* int32 */
    UBUS_MONITOR_TYPE,   /* int32 */
    UBUS_MONITOR_DATA,   /* nested: its attributes */
    UBUS_MONITOR_MAX
};

enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT,
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR,
    __UBUS_STATUS_LAST
};
