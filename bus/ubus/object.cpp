/// Objects of libubus: publishing, withdrawing, and answering calls.
#include <cstring>

#include "request.h"

namespace bus {
namespace {

ubus_object* find_object(ubus_context& ctx, std::uint32_t id) {
    avl_node* node = avl_find(&ctx.objects, &id);
    return node == nullptr ? nullptr : record_of<ubus_object>(node, offsetof(ubus_object, avl));
}

void send_status(ubus_context& ctx, const ubus_request_data& call, int status) {
    outgoing message;
    message.put_u32(UBUS_ATTR_STATUS, static_cast<std::uint32_t>(status))
        .put_u32(UBUS_ATTR_OBJID, call.object);
    // A failure shows in sock.eof.
    message.send(ctx, UBUS_MSG_STATUS, call.seq, call.peer);
}

const ubus_method* find_method(const ubus_object& object, const char* name) {
    for (int i = 0; i < object.n_methods; ++i) {
        if (object.methods[i].name != nullptr && std::strcmp(object.methods[i].name, name) == 0) {
            return &object.methods[i];
        }
    }
    return nullptr;
}

int call_handler(ubus_context& ctx, ubus_request_data& call, const attributes& given) {
    const char* name = get_text(given[UBUS_ATTR_METHOD]);
    ubus_object* object = find_object(ctx, call.object);
    if (object == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }
    if (name == nullptr || given[UBUS_ATTR_DATA] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const ubus_method* method = find_method(*object, name);
    if (method == nullptr) {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    return method->handler(&ctx, object, &call, name,
                           const_cast<blob_attr*>(given[UBUS_ATTR_DATA]));
}

ubus_request_data call_data(const message_head& head, const attributes& given) {
    ubus_request_data call{};
    call.object = get_u32(given[UBUS_ATTR_OBJID]);
    call.peer = head.peer;
    call.seq = head.seq;
    return call;
}

bool wants_answer(const attributes& given) {
    return given[UBUS_ATTR_NO_REPLY] == nullptr || blob_get_u8(given[UBUS_ATTR_NO_REPLY]) == 0;
}

// What the daemon says about an object that is being published or withdrawn.
struct object_answer {
    std::uint32_t id;
    std::uint32_t type_id;
};

void on_object_data(ubus_request* request, int, blob_attr* message) {
    attributes given;
    if (parse_attributes(message, given)) {
        auto* answer = static_cast<object_answer*>(request->priv);
        answer->id = get_u32(given[UBUS_ATTR_OBJID]);
        answer->type_id = get_u32(given[UBUS_ATTR_OBJTYPE]);
    }
}

int complete(ubus_context& ctx, const outgoing& message, std::uint8_t type, object_answer& answer) {
    ubus_request request;
    const int started = start_request(ctx, request, message, type, 0);
    if (started != UBUS_STATUS_OK) {
        return started;
    }
    request.raw_data_cb = on_object_data;
    request.priv = &answer;
    return ubus_complete_request(&ctx, &request, 0);
}

} // namespace

void handle_invoke(ubus_context& ctx, const message_head& head, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr) {
        return;
    }
    ubus_request_data call = call_data(head, given);
    call.acl.user = get_text(given[UBUS_ATTR_USER]);
    call.acl.group = get_text(given[UBUS_ATTR_GROUP]);
    call.acl.object = nullptr;
    call.fd = -1;
    call.req_fd = -1;
    const int status = call_handler(ctx, call, given);
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
    if (obj->name != nullptr) {
        message.put_text(UBUS_ATTR_OBJPATH, obj->name);
    }
    if (obj->type != nullptr && obj->type->id != 0) {
        message.put_u32(UBUS_ATTR_OBJTYPE, obj->type->id);
    } else if (obj->type != nullptr) {
        message.put_signature(obj->type->methods, obj->type->n_methods);
    } else if (obj->name != nullptr) {
        message.put_signature(obj->methods, obj->n_methods);
    }
    bus::object_answer answer{0, 0};
    const int status = bus::complete(*ctx, message, UBUS_MSG_ADD_OBJECT, answer);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    if (answer.id == 0) {
        return UBUS_STATUS_NO_DATA;
    }
    obj->id = answer.id;
    if (obj->type != nullptr && answer.type_id != 0) {
        obj->type->id = answer.type_id;
    }
    obj->avl.key = &obj->id;
    return avl_insert(&ctx->objects, &obj->avl) == 0 ? int{UBUS_STATUS_OK}
                                                     : int{UBUS_STATUS_INVALID_ARGUMENT};
}

int ubus_remove_object(ubus_context* ctx, ubus_object* obj) {
    bus::outgoing message;
    message.put_u32(UBUS_ATTR_OBJID, obj->id);
    bus::object_answer answer{0, 0};
    const int status = bus::complete(*ctx, message, UBUS_MSG_REMOVE_OBJECT, answer);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    if (bus::find_object(*ctx, obj->id) == obj) {
        avl_delete(&ctx->objects, &obj->avl);
    }
    obj->id = 0;
    // Named only if the type has gone with its last object.
    if (obj->type != nullptr && answer.type_id != 0) {
        obj->type->id = 0;
    }
    return UBUS_STATUS_OK;
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
