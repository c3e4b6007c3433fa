/// Notifications of libubus on the publisher's side: who is subscribed, and what they answer.
#include "request.h"

namespace bus {
namespace {

ubus_notify_request& notification_of(ubus_request& request) {
    return *record_of<ubus_notify_request>(&request, offsetof(ubus_notify_request, req));
}

void on_data(ubus_request* request, int type, blob_attr* message) {
    ubus_notify_request& notification = notification_of(*request);
    if (notification.data_cb != nullptr) {
        notification.data_cb(&notification, type, message);
    }
}

void on_complete(ubus_request* request, int) {
    ubus_notify_request& notification = notification_of(*request);
    if (notification.complete_cb != nullptr) {
        notification.complete_cb(&notification, 0, 0);
    }
}

// The place of an id whose answer is awaited; -1 if it is not.
int awaited_place(const ubus_notify_request& notification, std::uint32_t id) {
    for (int place = 0; place <= UBUS_MAX_NOTIFY_PEERS; ++place) {
        if ((notification.pending >> place & 1U) != 0 && notification.id[place] == id) {
            return place;
        }
    }
    return -1;
}

// Takes the ids of the subscribers from the daemon's answer. The answers of those that there is no
// place for go unheeded.
void await_subscribers(ubus_notify_request& notification, const blob_attr* subscribers) {
    if (subscribers == nullptr) {
        return;
    }
    int place = 1;
    blob_attr* each;
    std::size_t left;
    blob_for_each_attr(each, subscribers, left) {
        if (place > UBUS_MAX_NOTIFY_PEERS) {
            return;
        }
        if (blob_len(each) == sizeof(std::uint32_t)) {
            notification.id[place] = get_u32(each);
            notification.pending |= 1U << place;
            ++place;
        }
    }
}

int start_notification(ubus_context& ctx, const ubus_object& object, const char* name,
                       const blob_attr* data, ubus_notify_request& notification,
                       bool wants_answers) {
    notification = ubus_notify_request{};
    outgoing message;
    message.put_u32(UBUS_ATTR_OBJID, object.id)
        .put_text(UBUS_ATTR_METHOD, name)
        .put_nested(UBUS_ATTR_DATA, data);
    if (!wants_answers) {
        message.put_u8(UBUS_ATTR_NO_REPLY, 1);
    }
    const int started = start_request(ctx, notification.req, message, UBUS_MSG_NOTIFY, object.id);
    notification.req.notify = true;
    notification.req.data_cb = on_data;
    notification.req.complete_cb = on_complete;
    // The daemon's own answer comes first.
    notification.id[0] = object.id;
    notification.pending = 1;
    return started;
}

} // namespace

bool awaits_answer_of(ubus_request& request, std::uint32_t peer) {
    return request.notify ? awaited_place(notification_of(request), peer) >= 0
                          : request.peer == peer;
}

void handle_notification_status(ubus_request& request, std::uint32_t peer,
                                const attributes& given) {
    ubus_notify_request& notification = notification_of(request);
    const int place = awaited_place(notification, peer);
    notification.pending &= ~(1U << place);
    if (place == 0) {
        await_subscribers(notification, given[UBUS_ATTR_SUBSCRIBERS]);
    } else if (notification.status_cb != nullptr) {
        notification.status_cb(
            &notification, place,
            static_cast<int>(get_u32(given[UBUS_ATTR_STATUS], UBUS_STATUS_INVALID_ARGUMENT)));
    }
    if (notification.pending == 0 && !request.cancelled) {
        finish_request(request, UBUS_STATUS_OK);
    }
}

void handle_subscribed(ubus_context& ctx, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr || given[UBUS_ATTR_ACTIVE] == nullptr) {
        return;
    }
    ubus_object* const object = find_object(ctx, get_u32(given[UBUS_ATTR_OBJID]));
    if (object == nullptr) {
        return;
    }
    object->has_subscribers = blob_get_u8(given[UBUS_ATTR_ACTIVE]) != 0;
    if (object->subscribe_cb != nullptr) {
        object->subscribe_cb(&ctx, object);
    }
}

} // namespace bus

int ubus_notify_async(ubus_context* ctx, ubus_object* obj, const char* type, blob_attr* msg,
                      ubus_notify_request* req) {
    return bus::start_notification(*ctx, *obj, type, msg, *req, true);
}

int ubus_notify(ubus_context* ctx, ubus_object* obj, const char* type, blob_attr* msg,
                int timeout) {
    ubus_notify_request request;
    const int started = bus::start_notification(*ctx, *obj, type, msg, request, timeout >= 0);
    if (started != UBUS_STATUS_OK || timeout < 0) {
        return started;
    }
    return ubus_complete_request(ctx, &request.req, timeout);
}
