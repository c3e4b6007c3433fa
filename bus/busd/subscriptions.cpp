/// Subscriptions: whose notifications go to whom, and the notifications.
#include "broker.h"

#include <algorithm>
#include <endian.h>

namespace busd {
namespace {

// The ids of the subscribers as the payload of an attribute, as many as one message can hold.
std::vector<std::uint8_t> subscribers_of(const object& target) {
    constexpr std::size_t size = sizeof(blob_attr) + sizeof(std::uint32_t);
    constexpr std::size_t most = (bus::longest_blob - 2 * sizeof(blob_attr) - 2 * size) / size;
    std::vector<std::uint8_t> payload;
    for (const subscription& each : target.subscribers) {
        if (payload.size() == most * size) {
            break;
        }
        const std::uint32_t words[] = {htobe32(size), htobe32(each.subscriber->id)};
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(words);
        payload.insert(payload.end(), bytes, bytes + sizeof words);
    }
    return payload;
}

} // namespace

std::uint32_t broker::find_subscription_ends(const client& sender, const attributes& given,
                                             object*& subscriber, object*& target) const {
    if (given[UBUS_ATTR_OBJID] == nullptr || given[UBUS_ATTR_TARGET] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const std::uint32_t id = bus::get_u32(given[UBUS_ATTR_OBJID]);
    subscriber = find_object(id);
    if (is_system_object(id) || (subscriber != nullptr && subscriber->owner != &sender)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    target = find_object(bus::get_u32(given[UBUS_ATTR_TARGET]));
    return subscriber == nullptr || target == nullptr ? UBUS_STATUS_NOT_FOUND : UBUS_STATUS_OK;
}

void broker::subscribe(client& sender, const head& request, const attributes& given) {
    object* subscriber = nullptr;
    object* target = nullptr;
    std::uint32_t status = find_subscription_ends(sender, given, subscriber, target);
    if (status == UBUS_STATUS_OK && target->owner == &sender) {
        status = UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (status == UBUS_STATUS_OK) {
        target->subscribers.push_front({subscriber, target, {}});
        const auto made = target->subscribers.begin();
        subscriber->targets.push_front(made);
        made->listed = subscriber->targets.begin();
        if (target->subscribers.size() == 1) {
            report_activity(*target, true);
        }
    }
    reply_status(sender, request, status);
}

void broker::unsubscribe(client& sender, const head& request, const attributes& given) {
    object* subscriber = nullptr;
    object* target = nullptr;
    std::uint32_t status = find_subscription_ends(sender, given, subscriber, target);
    if (status == UBUS_STATUS_OK) {
        auto& targets = subscriber->targets;
        const auto found = std::find_if(targets.begin(), targets.end(),
                                        [&](const auto& each) { return each->target == target; });
        if (found != targets.end()) {
            end_subscription(*found);
        } else {
            status = UBUS_STATUS_NOT_FOUND;
        }
    }
    reply_status(sender, request, status);
}

void broker::end_subscription(std::list<subscription>::iterator ending) {
    object& target = *ending->target;
    ending->subscriber->targets.erase(ending->listed);
    target.subscribers.erase(ending);
    if (target.subscribers.empty()) {
        report_activity(target, false);
    }
}

void broker::end_subscriptions(object& leaving) {
    while (!leaving.targets.empty()) {
        end_subscription(leaving.targets.front());
    }
    while (!leaving.subscribers.empty()) {
        object& subscriber = *leaving.subscribers.front().subscriber;
        {
            message end(subscriber.owner->out_, UBUS_MSG_UNSUBSCRIBE, ++subscriber.last_seq, 0);
            end.put_u32(UBUS_ATTR_OBJID, subscriber.id).put_u32(UBUS_ATTR_TARGET, leaving.id);
            send(*subscriber.owner, end);
        }
        end_subscription(leaving.subscribers.begin());
    }
}

// Tells the owner that the first subscriber of its object has come, or that the last has gone.
void broker::report_activity(object& target, bool active) {
    message report(target.owner->out_, UBUS_MSG_NOTIFY, ++target.last_seq, 0);
    report.put_u32(UBUS_ATTR_OBJID, target.id).put_u8(UBUS_ATTR_ACTIVE, active ? 1 : 0);
    send(*target.owner, report);
}

void broker::notify(client& sender, const head& request, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr || given[UBUS_ATTR_METHOD] == nullptr) {
        reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    const std::uint32_t id = bus::get_u32(given[UBUS_ATTR_OBJID]);
    const object* const publisher = find_object(id);
    if (is_system_object(id) || (publisher != nullptr && publisher->owner != &sender)) {
        reply_status(sender, request, UBUS_STATUS_PERMISSION_DENIED);
        return;
    }
    if (publisher == nullptr) {
        reply_status(sender, request, UBUS_STATUS_NOT_FOUND);
        return;
    }
    const bool wants_answers =
        given[UBUS_ATTR_NO_REPLY] == nullptr || blob_get_u8(given[UBUS_ATTR_NO_REPLY]) == 0;
    if (wants_answers) {
        const std::vector<std::uint8_t> subscribers = subscribers_of(*publisher);
        message answer(sender.out_, UBUS_MSG_STATUS, request.seq, request.peer);
        answer.put_u32(UBUS_ATTR_OBJID, id)
            .put_payload(UBUS_ATTR_SUBSCRIBERS, subscribers.data(), subscribers.size())
            .put_u32(UBUS_ATTR_STATUS, UBUS_STATUS_OK);
        send(sender, answer);
    }
    for (const subscription& each : publisher->subscribers) {
        client& receiver = *each.subscriber->owner;
        message call(receiver.out_, UBUS_MSG_INVOKE, request.seq, sender.id_);
        if (!wants_answers) {
            call.put_u8(UBUS_ATTR_NO_REPLY, 1);
        }
        call.put_u32(UBUS_ATTR_OBJID, each.subscriber->id)
            .put(given[UBUS_ATTR_METHOD])
            .put_text(UBUS_ATTR_USER, sender.user_)
            .put_text(UBUS_ATTR_GROUP, sender.group_)
            .put(given[UBUS_ATTR_DATA]);
        send(receiver, call);
    }
}

} // namespace busd
