/// The broker's calls: from the caller to the owner of an object, and the answers back.
#include "broker.h"

namespace busd {

void broker::invoke(client& sender, const head& request, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr || given[UBUS_ATTR_METHOD] == nullptr) {
        reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    const std::uint32_t id = bus::get_u32(given[UBUS_ATTR_OBJID]);
    if (id == UBUS_SYSTEM_OBJECT_EVENT) {
        reply_status(sender, request, call_events(sender, given));
        return;
    }
    if (id == UBUS_SYSTEM_OBJECT_MONITOR) {
        reply_status(sender, request, call_monitor(sender, given));
        return;
    }
    const object* const callee = find_object(id);
    if (callee == nullptr) {
        reply_status(sender, request, UBUS_STATUS_NOT_FOUND);
        return;
    }
    client& owner = *callee->owner;
    message call(owner.out_, UBUS_MSG_INVOKE, request.seq, sender.id_);
    call.put(given[UBUS_ATTR_OBJID])
        .put(given[UBUS_ATTR_METHOD])
        .put_text(UBUS_ATTR_USER, sender.user_)
        .put_text(UBUS_ATTR_GROUP, sender.group_)
        .put(given[UBUS_ATTR_DATA]);
    // The caller is not notified if its names make the message too long to be sent.
    send(owner, call);
}

void broker::answer_call(client& sender, const head& answer, const attributes& given) {
    const std::uint32_t id = bus::get_u32(given[UBUS_ATTR_OBJID]);
    const object* const callee = find_object(id);
    const auto caller = clients_.find(answer.peer);
    const int told = answer.type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA;
    if (callee == nullptr || callee->owner != &sender || caller == clients_.end() ||
        given[static_cast<std::size_t>(told)] == nullptr) {
        return;
    }
    message forwarded(caller->second->out_, answer.type, answer.seq, id);
    if (answer.type == UBUS_MSG_STATUS) {
        forwarded.put(given[UBUS_ATTR_STATUS]).put(given[UBUS_ATTR_OBJID]);
    } else {
        forwarded.put(given[UBUS_ATTR_OBJID]).put(given[UBUS_ATTR_DATA]);
    }
    send(*caller->second, forwarded);
}

} // namespace busd
