/// The objects of the broker: publishing and withdrawing.
#include "broker.h"

#include <cstring>
#include <utility>

namespace busd {
namespace {

/// The size of what a look-up returns about an object.
std::size_t description_size(std::size_t path_size, std::size_t signature_size) {
    const auto attribute = [](std::size_t payload) {
        return sizeof(blob_attr) + ((payload + 3) & ~std::size_t{3});
    };
    return sizeof(blob_attr) + attribute(path_size + 1) + 2 * attribute(sizeof(std::uint32_t)) +
           attribute(signature_size);
}

// The methods that a signature names. It goes on to every client that looks the object up, so only
// whole fields with names pass: with any other there is no type. What does not even begin a whole
// field, and all behind it, is left out.
std::optional<std::vector<std::uint8_t>> methods_of(const blob_attr* signature) {
    std::vector<std::uint8_t> methods;
    blob_attr* method;
    std::size_t left;
    blob_for_each_attr(method, signature, left) {
        if (!blobmsg_check_attr(method, true)) {
            return std::nullopt;
        }
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(method);
        methods.insert(methods.end(), bytes, bytes + blob_pad_len(method));
    }
    return methods;
}

} // namespace

void broker::add_object(client& sender, const head& request, const attributes& given) {
    const char* text = bus::get_text(given[UBUS_ATTR_OBJPATH]);
    const blob_attr* signature = given[UBUS_ATTR_SIGNATURE];
    std::shared_ptr<object_type> type;
    std::optional<std::vector<std::uint8_t>> methods;
    if (given[UBUS_ATTR_OBJTYPE] != nullptr) {
        const auto known = types_.find(bus::get_u32(given[UBUS_ATTR_OBJTYPE]));
        type = known == types_.end() ? nullptr : known->second.lock();
    } else if (signature != nullptr) {
        methods = methods_of(signature);
    }
    if (text != nullptr) {
        const std::size_t signature_size = type != nullptr       ? type->signature.size()
                                           : methods.has_value() ? methods->size()
                                                                 : 0;
        // A look-up returns all of it in one message.
        if (paths_.count(text) != 0 ||
            description_size(std::strlen(text), signature_size) > bus::longest_blob) {
            reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
            return;
        }
    }

    if (methods.has_value()) {
        type = std::make_shared<object_type>(object_type{unused_id(), std::move(*methods)});
        types_.emplace(type->id, type);
    }
    const std::uint32_t id = unused_id();
    auto path = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    object& added = *objects_
                         .emplace(id, std::make_unique<object>(
                                          object{id, std::move(path), std::move(type), &sender}))
                         .first->second;
    added.owned = sender.objects_.insert(sender.objects_.end(), &added);
    if (added.path.has_value()) {
        paths_.emplace(*added.path, &added);
    }
    publish_change("ubus.object.add", added);

    {
        message answer(sender.out_, UBUS_MSG_DATA, request.seq, request.peer);
        answer.put_u32(UBUS_ATTR_OBJID, id);
        // A client that has given the id of a type knows it.
        if (added.type != nullptr && signature != nullptr) {
            answer.put_u32(UBUS_ATTR_OBJTYPE, added.type->id);
        }
        send(sender, answer);
    }
    reply_status(sender, request, UBUS_STATUS_OK);
}

void broker::remove_object(client& sender, const head& request, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr) {
        reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    const std::uint32_t id = bus::get_u32(given[UBUS_ATTR_OBJID]);
    object* const known = find_object(id);
    if (is_system_object(id) || (known != nullptr && known->owner != &sender)) {
        reply_status(sender, request, UBUS_STATUS_PERMISSION_DENIED);
        return;
    }
    if (known == nullptr) {
        reply_status(sender, request, UBUS_STATUS_NOT_FOUND);
        return;
    }
    object& leaving = *known;
    {
        message answer(sender.out_, UBUS_MSG_DATA, request.seq, request.peer);
        answer.put_u32(UBUS_ATTR_OBJID, leaving.id);
        // Reported only when the type goes with its last object: the owner must not use it again.
        if (leaving.type != nullptr && leaving.type.use_count() == 1) {
            answer.put_u32(UBUS_ATTR_OBJTYPE, leaving.type->id);
        }
        send(sender, answer);
    }
    forget(leaving);
    reply_status(sender, request, UBUS_STATUS_OK);
}

void broker::forget(object& leaving) {
    end_subscriptions(leaving);
    patterns_.remove(leaving);
    publish_change("ubus.object.remove", leaving);
    leaving.owner->objects_.erase(leaving.owned);
    if (leaving.path.has_value()) {
        paths_.erase(*leaving.path);
    }
    if (leaving.type != nullptr && leaving.type.use_count() == 1) {
        types_.erase(leaving.type->id);
    }
    objects_.erase(leaving.id);
}

} // namespace busd
