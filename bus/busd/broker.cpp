/// The bus itself: how each message is handled.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/random.h>
#include <utility>

namespace busd {
namespace {

// Ids up to here are kept free for use by the protocol itself.
constexpr std::uint32_t last_reserved_id = 1024;

std::uint32_t random_u32() {
    std::uint32_t value;
    while (::getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) {
        if (errno != EINTR) {
            std::abort();
        }
    }
    return value;
}

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

void broker::attach(client& joining) {
    joining.id_ = unused_id();
    clients_.emplace(joining.id_, &joining);
    message hello(joining.out_, UBUS_MSG_HELLO, 0, joining.id_);
    send(joining, hello);
}

void broker::detach(client& leaving) {
    for (object* owned : leaving.objects_) {
        forget(*owned);
    }
    leaving.objects_.clear();
    clients_.erase(leaving.id_);
    leaving.id_ = 0;
}

bool broker::receive(client& sender, const std::uint8_t* bytes, std::size_t count) {
    auto& partial = sender.partial_;
    head next;
    // Completes the message that earlier bytes have begun, first its head, then the rest.
    while (!partial.empty()) {
        const bool has_head = partial.size() >= bus::message_head_size;
        if (has_head && !bus::read_head(partial.data(), next)) {
            return false;
        }
        const std::size_t wanted = has_head ? next.size : bus::message_head_size;
        const std::size_t taken = std::min(count, wanted - partial.size());
        partial.insert(partial.end(), bytes, bytes + taken);
        bytes += taken;
        count -= taken;
        if (partial.size() < wanted) {
            return true;
        }
        if (has_head) {
            const std::vector<std::uint8_t> whole = std::move(partial);
            partial.clear();
            handle(sender, whole.data(), next);
        }
    }
    while (count >= bus::message_head_size) {
        if (!bus::read_head(bytes, next)) {
            return false;
        }
        if (count < next.size) {
            partial.reserve(next.size);
            break;
        }
        handle(sender, bytes, next);
        bytes += next.size;
        count -= next.size;
    }
    partial.insert(partial.end(), bytes, bytes + count);
    return true;
}

void broker::handle(client& sender, const std::uint8_t* bytes, const head& message_head) {
    // An attribute that is not as it should be counts as missing.
    attributes given;
    const bool well_formed = bus::parse_attributes(
        reinterpret_cast<const blob_attr*>(bytes + sizeof(ubus_msghdr)), given);
    switch (message_head.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        answer_call(sender, message_head, given);
        break;
    case UBUS_MSG_PING:
        answer_ping(sender, message_head, well_formed ? bytes : nullptr);
        break;
    case UBUS_MSG_LOOKUP:
        lookup(sender, message_head, given);
        break;
    case UBUS_MSG_INVOKE:
        invoke(sender, message_head, given);
        break;
    case UBUS_MSG_ADD_OBJECT:
        add_object(sender, message_head, given);
        break;
    case UBUS_MSG_REMOVE_OBJECT:
        remove_object(sender, message_head, given);
        break;
    default:
        reply_status(sender, message_head, UBUS_STATUS_INVALID_COMMAND);
        break;
    }
}

void broker::answer_ping(client& asking, const head& request, const std::uint8_t* bytes) {
    {
        message answer(asking.out_, UBUS_MSG_DATA, request.seq, request.peer);
        if (bytes != nullptr) {
            answer.put_raw(bytes + bus::message_head_size, request.size - bus::message_head_size);
        }
        send(asking, answer);
    }
    reply_status(asking, request, UBUS_STATUS_OK);
}

void broker::lookup(client& sender, const head& request, const attributes& given) {
    const char* text = bus::get_text(given[UBUS_ATTR_OBJPATH]);
    const std::string_view path = text == nullptr ? "*" : text;
    // Asked for all, none is an answer too.
    bool any = text == nullptr;
    if (path.empty()) {
        reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    if (path.back() == '*') {
        const std::string prefix(path.substr(0, path.size() - 1));
        for (auto at = paths_.lower_bound(prefix);
             at != paths_.end() && at->first.compare(0, prefix.size(), prefix) == 0; ++at) {
            describe(sender, request, *at->second);
            any = true;
        }
    } else if (const auto at = paths_.find(std::string(path)); at != paths_.end()) {
        describe(sender, request, *at->second);
        any = true;
    }
    reply_status(sender, request, any ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
}

void broker::describe(client& asking, const head& request, const object& found) {
    if (found.type == nullptr) {
        return;
    }
    message answer(asking.out_, UBUS_MSG_DATA, request.seq, request.peer);
    answer.put_text(UBUS_ATTR_OBJPATH, *found.path)
        .put_u32(UBUS_ATTR_OBJID, found.id)
        .put_u32(UBUS_ATTR_OBJTYPE, found.type->id)
        .put_payload(UBUS_ATTR_SIGNATURE, found.type->signature.data(),
                     found.type->signature.size());
    send(asking, answer);
}

void broker::invoke(client& sender, const head& request, const attributes& given) {
    if (given[UBUS_ATTR_OBJID] == nullptr || given[UBUS_ATTR_METHOD] == nullptr) {
        reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    const auto callee = objects_.find(bus::get_u32(given[UBUS_ATTR_OBJID]));
    if (callee == objects_.end()) {
        reply_status(sender, request, UBUS_STATUS_NOT_FOUND);
        return;
    }
    client& owner = *callee->second->owner;
    message call(owner.out_, UBUS_MSG_INVOKE, request.seq, sender.id_);
    call.put(given[UBUS_ATTR_OBJID])
        .put(given[UBUS_ATTR_METHOD])
        .put_text(UBUS_ATTR_USER, sender.user_)
        .put_text(UBUS_ATTR_GROUP, sender.group_)
        .put(given[UBUS_ATTR_DATA]);
    // With the caller's names it may exceed the limit of a message. The owner could not parse it,
    // so it is dropped; the caller is not notified.
    if (!call.too_long()) {
        send(owner, call);
    }
}

void broker::answer_call(client& sender, const head& answer, const attributes& given) {
    const std::uint32_t id = bus::get_u32(given[UBUS_ATTR_OBJID]);
    const auto callee = objects_.find(id);
    const auto caller = clients_.find(answer.peer);
    const int told = answer.type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA;
    if (callee == objects_.end() || callee->second->owner != &sender || caller == clients_.end() ||
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
    sender.objects_.insert(&added);
    if (added.path.has_value()) {
        paths_.emplace(*added.path, &added);
    }

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
    const auto known = objects_.find(bus::get_u32(given[UBUS_ATTR_OBJID]));
    if (known == objects_.end()) {
        reply_status(sender, request, UBUS_STATUS_NOT_FOUND);
        return;
    }
    object& leaving = *known->second;
    if (leaving.owner != &sender) {
        reply_status(sender, request, UBUS_STATUS_PERMISSION_DENIED);
        return;
    }
    {
        message answer(sender.out_, UBUS_MSG_DATA, request.seq, request.peer);
        answer.put_u32(UBUS_ATTR_OBJID, leaving.id);
        // Reported only when the type goes with its last object: the owner must not use it again.
        if (leaving.type != nullptr && leaving.type.use_count() == 1) {
            answer.put_u32(UBUS_ATTR_OBJTYPE, leaving.type->id);
        }
        send(sender, answer);
    }
    sender.objects_.erase(&leaving);
    forget(leaving);
    reply_status(sender, request, UBUS_STATUS_OK);
}

void broker::forget(object& leaving) {
    if (leaving.path.has_value()) {
        paths_.erase(*leaving.path);
    }
    if (leaving.type != nullptr && leaving.type.use_count() == 1) {
        types_.erase(leaving.type->id);
    }
    objects_.erase(leaving.id);
}

void broker::reply_status(client& asking, const head& request, std::uint32_t status) {
    message answer(asking.out_, UBUS_MSG_STATUS, request.seq, request.peer);
    answer.put_u32(UBUS_ATTR_STATUS, status);
    send(asking, answer);
}

void broker::send(client& receiver, message& ready) {
    if (!ready.fits()) {
        receiver.on_full();
    }
    // A client that reads too slowly loses whole messages; the daemon does not wait for it.
    if (ready.fits()) {
        ready.commit();
        receiver.on_output();
    }
}

std::uint32_t broker::unused_id() const {
    for (;;) {
        const std::uint32_t id = random_u32();
        if (id > last_reserved_id && clients_.count(id) == 0 && objects_.count(id) == 0 &&
            types_.count(id) == 0) {
            return id;
        }
    }
}

} // namespace busd
