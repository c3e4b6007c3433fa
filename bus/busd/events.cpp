/// Events: the daemon's object that takes them, and their way to all that listen.
#include "broker.h"

#include <array>
#include <string_view>

namespace busd {
namespace {

// The ids of the daemon's own events begin with it.
constexpr std::string_view own_prefix = "ubus.";

enum { first_field, second_field, field_count };
using fields = std::array<blob_attr*, field_count>;
using policy = std::array<blobmsg_policy, field_count>;

// Both fields of a call; false if either is missing or of another type.
bool parse(const policy& expected, blob_attr* data, fields& found) {
    if (data == nullptr) {
        return false;
    }
    // What is wrong behind the fields does not matter.
    blobmsg_parse(expected.data(), field_count, found.data(), blob_data(data),
                  static_cast<unsigned>(blob_len(data)));
    return found[first_field] != nullptr && found[second_field] != nullptr;
}

} // namespace

std::uint32_t broker::call_events(client& sender, const attributes& given) {
    const std::string_view method = bus::get_text(given[UBUS_ATTR_METHOD]);
    auto* const data = const_cast<blob_attr*>(given[UBUS_ATTR_DATA]);
    if (method == "register") {
        return listen(sender, data);
    }
    if (method == "send") {
        return take_event(sender, data);
    }
    return UBUS_STATUS_INVALID_COMMAND;
}

std::uint32_t broker::listen(client& sender, blob_attr* data) {
    constexpr policy expected{{{"object", BLOBMSG_TYPE_INT32}, {"pattern", BLOBMSG_TYPE_STRING}}};
    fields found;
    if (!parse(expected, data, found)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const std::uint32_t id = blobmsg_get_u32(found[first_field]);
    if (id < UBUS_SYSTEM_OBJECT_MAX) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    object* const receiver = find_object(id);
    if (receiver == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }
    const char* const pattern = blobmsg_get_string(found[second_field]);
    if (receiver->owner != &sender || *pattern == '\0') {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    patterns_.add(*receiver, pattern);
    return UBUS_STATUS_OK;
}

std::uint32_t broker::take_event(client& sender, blob_attr* data) {
    constexpr policy expected{{{"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE}}};
    fields found;
    if (!parse(expected, data, found)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const std::string id = blobmsg_get_string(found[first_field]);
    if (id.compare(0, own_prefix.size(), own_prefix) == 0) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    publish_event(&sender, id, blobmsg_data(found[second_field]),
                  blobmsg_data_len(found[second_field]));
    return UBUS_STATUS_OK;
}

void broker::publish_event(const client* sender, const std::string& id, const void* table,
                           std::size_t size) {
    for (const object* receiver : patterns_.matching(id)) {
        client& owner = *receiver->owner;
        if (&owner == sender) {
            continue;
        }
        message event(owner.out_, UBUS_MSG_INVOKE, ++event_seq_, 0);
        event.put_u32(UBUS_ATTR_OBJID, receiver->id)
            .put_text(UBUS_ATTR_METHOD, id)
            .put_payload(UBUS_ATTR_DATA, table, size);
        send(owner, event);
    }
}

void broker::publish_change(const char* id, const object& changed) {
    if (!changed.path.has_value()) {
        return;
    }
    blob_buf table{};
    if (blob_buf_init(&table, 0) == 0 && blobmsg_add_u32(&table, "id", changed.id) == 0 &&
        blobmsg_add_string(&table, "path", changed.path->c_str()) == 0) {
        publish_event(nullptr, id, blob_data(table.head), blob_len(table.head));
    }
    blob_buf_free(&table);
}

} // namespace busd
