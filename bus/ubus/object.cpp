/// Objects of libubus: publishing, withdrawing, and answering calls.
#include <cstring>

#include "request.h"

namespace bus {

ubus_object* find_object(ubus_context& ctx, std::uint32_t id) {
    avl_node* node = avl_find(&ctx.objects, &id);
    return node == nullptr ? nullptr : record_of<ubus_object>(node, offsetof(ubus_object, avl));
}

namespace {

void send_status(ubus_context& ctx, const ubus_request_data& call, int status) {
    outgoing message;
    message.put_u32(UBUS_ATTR_STATUS, static_cast<std::uint32_t>(status))
        .put_u32(UBUS_ATTR_OBJID, call.object);
    // A failure shows in sock.eof.
    message.send(ctx, UBUS_MSG_STATUS, call.seq, call.peer);
}

const ubus_method* find_method(const ubus_object& object, const char* name) {
    for (int i = 0; i < object.n_methods; ++i) {
        if (object.methods[i].name == nullptr || std::strcmp(object.methods[i].name, name) == 0) {
            return &object.methods[i];
        }
    }
    return nullptr;
}

// Answers an incoming call whose answer has no way back to the caller.
void send_status_to_nobody(ubus_context& ctx, int status) {
    send_status(ctx, ubus_request_data{}, status);
}

ubus_request_data call_data(const message_head& head, const attributes& given) {
    ubus_request_data call{};
    call.object = get_u32(given[UBUS_ATTR_OBJID]);
    call.peer = head.peer;
    call.seq = head.seq;
    call.fd = -1;
    call.req_fd = -1;
    return call;
}

bool wants_answer(const attributes& given) {
    return given[UBUS_ATTR_NO_REPLY] == nullptr || blob_get_u8(given[UBUS_ATTR_NO_REPLY]) == 0;
}

void leave_objects(ubus_context& ctx, ubus_object& object) {
    if (find_object(ctx, object.id) == &object) {
        avl_delete(&ctx.objects, &object.avl);
    }
}

// Enters an object under the id that the daemon has given it; the answer may still end in a
// failure.
void enter_object(ubus_context& ctx, ubus_object& object, const attributes& given) {
    // Reported twice, it must not stay in the tree under a key that changes.
    leave_objects(ctx, object);
    object.id = get_u32(given[UBUS_ATTR_OBJID]);
    if (object.type != nullptr && given[UBUS_ATTR_OBJTYPE] != nullptr) {
        object.type->id = get_u32(given[UBUS_ATTR_OBJTYPE]);
    }
    object.avl.key = &object.id;
    avl_insert(&ctx.objects, &object.avl);
}

void withdraw_object(ubus_context& ctx, ubus_object& object, const attributes& given) {
    leave_objects(ctx, object);
    object.id = 0;
    // Named only if the type has gone with its last object.
    if (object.type != nullptr && given[UBUS_ATTR_OBJTYPE] != nullptr) {
        object.type->id = 0;
    }
}

// What a request about an object has come to.
struct object_request {
    ubus_object* object;
    // The daemon has named an id.
    bool told;
};

template <void (*handle)(ubus_context&, ubus_object&, const attributes&)>
void on_object_data(ubus_request* request, int, blob_attr* message) {
    attributes given;
    if (parse_attributes(message, given) && given[UBUS_ATTR_OBJID] != nullptr) {
        auto* const about = static_cast<object_request*>(request->priv);
        about->told = get_u32(given[UBUS_ATTR_OBJID]) != 0;
        handle(*request->ctx, *about->object, given);
    }
}

int complete(ubus_context& ctx, const outgoing& message, std::uint8_t type, ubus_object& object,
             ubus_data_handler_t on_data) {
    ubus_request request;
    const int started = start_request(ctx, request, message, type, 0);
    if (started != UBUS_STATUS_OK) {
        return started;
    }
    object_request about{&object, false};
    request.raw_data_cb = on_data;
    request.priv = &about;
    const int status = ubus_complete_request(&ctx, &request, 0);
    return status != UBUS_STATUS_OK || about.told ? status : int{UBUS_STATUS_NO_DATA};
}

} // namespace

void handle_invoke(ubus_context& ctx, const message_head& head, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr) {
        return;
    }
    ubus_object* const object = find_object(ctx, get_u32(given[UBUS_ATTR_OBJID]));
    const char* const name = get_text(given[UBUS_ATTR_METHOD]);
    if (object == nullptr || name == nullptr) {
        send_status_to_nobody(ctx, object == nullptr ? UBUS_STATUS_NOT_FOUND
                                                     : UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    ubus_request_data call = call_data(head, given);
    const ubus_method* const method = find_method(*object, name);
    if (method == nullptr || given[UBUS_ATTR_DATA] == nullptr) {
        send_status(ctx, call,
                    method == nullptr ? UBUS_STATUS_METHOD_NOT_FOUND
                                      : UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    call.acl.user = get_text(given[UBUS_ATTR_USER]);
    call.acl.group = get_text(given[UBUS_ATTR_GROUP]);
    // Access rules apply to all three together.
    call.acl.object =
        call.acl.user != nullptr && call.acl.group != nullptr ? object->name : nullptr;
    const int status =
        method->handler(&ctx, object, &call, name, const_cast<blob_attr*>(given[UBUS_ATTR_DATA]));
    if (!call.deferred && wants_answer(given)) {
        send_status(ctx, call, status);
    }
}

void refuse_invoke(ubus_context& ctx, const message_head& head, const attributes& given,
                   int status) {
    if (given[UBUS_ATTR_OBJID] != nullptr && wants_answer(given)) {
        send_status(ctx, call_data(head, given), status);
    }
}

} // namespace bus

int ubus_add_object(ubus_context* ctx, ubus_object* obj) {
    bus::outgoing message;
    if (obj->name != nullptr && obj->type != nullptr) {
        message.put_text(UBUS_ATTR_OBJPATH, obj->name);
        if (obj->type->id != 0) {
            message.put_u32(UBUS_ATTR_OBJTYPE, obj->type->id);
        } else {
            message.put_signature(obj->type->methods, obj->type->n_methods);
        }
    }
    return bus::complete(*ctx, message, UBUS_MSG_ADD_OBJECT, *obj,
                         bus::on_object_data<bus::enter_object>);
}

int ubus_remove_object(ubus_context* ctx, ubus_object* obj) {
    bus::outgoing message;
    message.put_u32(UBUS_ATTR_OBJID, obj->id);
    return bus::complete(*ctx, message, UBUS_MSG_REMOVE_OBJECT, *obj,
                         bus::on_object_data<bus::withdraw_object>);
}

int ubus_send_reply(ubus_context* ctx, ubus_request_data* req, blob_attr* msg) {
    bus::outgoing message;
    message.put_u32(UBUS_ATTR_OBJID, req->object).put_nested(UBUS_ATTR_DATA, msg);
    if (message.failed()) {
        return UBUS_STATUS_NO_MEMORY;
    }
    return message.send(*ctx, UBUS_MSG_DATA, req->seq, req->peer) ? UBUS_STATUS_OK
                                                                  : UBUS_STATUS_NO_DATA;
}

void ubus_complete_deferred_request(ubus_context* ctx, ubus_request_data* req, int ret) {
    bus::send_status(*ctx, *req, ret);
}
