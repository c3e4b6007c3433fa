/// Subscribers of libubus: objects that notifications of other clients' objects go to.
#include "request.h"

namespace bus {
namespace {

ubus_subscriber& subscriber_of(ubus_object& object) {
    return *record_of<ubus_subscriber>(&object, offsetof(ubus_subscriber, obj));
}

int on_notification(ubus_context* ctx, ubus_object* object, ubus_request_data* request,
                    const char* name, blob_attr* message) {
    const ubus_subscriber& subscriber = subscriber_of(*object);
    return subscriber.cb == nullptr ? int{UBUS_STATUS_OK}
                                    : subscriber.cb(ctx, object, request, name, message);
}

// Without a name, so that it takes every notification. Its address tells subscribers from other
// objects.
constexpr ubus_method notification_method{nullptr, on_notification, 0, 0, nullptr, 0};

int change_subscription(ubus_context& ctx, const ubus_subscriber& subscriber, std::uint32_t target,
                        std::uint8_t type) {
    ubus_request request;
    int started = UBUS_STATUS_OK;
    {
        outgoing message;
        message.put_u32(UBUS_ATTR_OBJID, subscriber.obj.id).put_u32(UBUS_ATTR_TARGET, target);
        started = start_request(ctx, request, message, type, 0);
    }
    return started == UBUS_STATUS_OK ? ubus_complete_request(&ctx, &request, 0) : started;
}

} // namespace

void handle_lost_target(ubus_context& ctx, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr || given[UBUS_ATTR_TARGET] == nullptr) {
        return;
    }
    ubus_object* const object = find_object(ctx, get_u32(given[UBUS_ATTR_OBJID]));
    if (object == nullptr || object->methods != &notification_method) {
        return;
    }
    ubus_subscriber& subscriber = subscriber_of(*object);
    if (subscriber.remove_cb != nullptr) {
        subscriber.remove_cb(&ctx, &subscriber, get_u32(given[UBUS_ATTR_TARGET]));
    }
}

} // namespace bus

int ubus_register_subscriber(ubus_context* ctx, ubus_subscriber* obj) {
    if (obj->new_obj_cb != nullptr) {
        return UBUS_STATUS_NOT_SUPPORTED;
    }
    INIT_LIST_HEAD(&obj->list);
    obj->obj.methods = &bus::notification_method;
    obj->obj.n_methods = 1;
    return ubus_add_object(ctx, &obj->obj);
}

int ubus_subscribe(ubus_context* ctx, ubus_subscriber* obj, std::uint32_t id) {
    return bus::change_subscription(*ctx, *obj, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(ubus_context* ctx, ubus_subscriber* obj, std::uint32_t id) {
    return bus::change_subscription(*ctx, *obj, id, UBUS_MSG_UNSUBSCRIBE);
}
