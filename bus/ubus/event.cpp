/// Events of libubus: sending them, and the objects that receive them.
#include "dispatch.h"

namespace bus {
namespace {

/// A message of blobmsg fields that is being built.
class fields {
public:
    fields()
        : failed_(blob_buf_init(&buffer_, 0) != 0) {}
    ~fields() { blob_buf_free(&buffer_); }
    fields(const fields&) = delete;
    fields& operator=(const fields&) = delete;

    fields& add_u32(const char* name, std::uint32_t value) {
        failed_ = failed_ || blobmsg_add_u32(&buffer_, name, value) != 0;
        return *this;
    }
    fields& add_text(const char* name, const char* text) {
        failed_ = failed_ || blobmsg_add_string(&buffer_, name, text) != 0;
        return *this;
    }
    /// A table with what `message`, a blob of the caller's, holds; an empty one if it is null.
    fields& add_table(const char* name, const blob_attr* message) {
        const std::size_t size = message == nullptr ? 0 : blob_len(message);
        failed_ = failed_ || blobmsg_add_field(&buffer_, BLOBMSG_TYPE_TABLE, name,
                                               message == nullptr ? "" : blob_data(message),
                                               static_cast<unsigned>(size)) != 0;
        return *this;
    }

    /// Calls a method of the daemon's object of events, and waits for its end without a limit.
    int send(ubus_context& ctx, const char* method) const {
        return failed_ ? int{UBUS_STATUS_NO_MEMORY}
                       : ubus_invoke(&ctx, UBUS_SYSTEM_OBJECT_EVENT, method, buffer_.head, nullptr,
                                     nullptr, 0);
    }

private:
    blob_buf buffer_{};
    bool failed_;
};

int on_event(ubus_context* ctx, ubus_object* object, ubus_request_data*, const char* id,
             blob_attr* table) {
    auto* const handler = record_of<ubus_event_handler>(object, offsetof(ubus_event_handler, obj));
    if (handler->cb != nullptr) {
        handler->cb(ctx, handler, id, table);
    }
    return UBUS_STATUS_OK;
}

// Without a name, so that it takes the events of all ids.
constexpr ubus_method event_method{nullptr, on_event, 0, 0, nullptr, 0};

int publish(ubus_context& ctx, ubus_object& object) {
    if ((object.name == nullptr) != (object.type == nullptr)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    object.methods = &event_method;
    object.n_methods = 1;
    return ubus_add_object(&ctx, &object);
}

} // namespace
} // namespace bus

int ubus_register_event_handler(ubus_context* ctx, ubus_event_handler* ev, const char* pattern) {
    if (ev->obj.id == 0) {
        const int published = bus::publish(*ctx, ev->obj);
        if (published != UBUS_STATUS_OK) {
            return published;
        }
    }
    bus::fields request;
    request.add_u32("object", ev->obj.id);
    if (pattern != nullptr) {
        request.add_text("pattern", pattern);
    }
    return request.send(*ctx, "register");
}

int ubus_send_event(ubus_context* ctx, const char* id, blob_attr* data) {
    return bus::fields().add_text("id", id).add_table("data", data).send(*ctx, "send");
}
