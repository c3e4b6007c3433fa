/// The bus itself: how each message is handled.
#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/random.h>
#include <utility>

namespace busd {
namespace {

std::uint32_t random_u32() {
    std::uint32_t value;
    while (::getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) {
        if (errno != EINTR) {
            std::abort();
        }
    }
    return value;
}

} // namespace

void broker::attach(client& joining) {
    joining.id_ = unused_id();
    clients_.emplace(joining.id_, &joining);
    message hello(joining.out_, UBUS_MSG_HELLO, 0, joining.id_);
    send(joining, hello);
}

void broker::detach(client& leaving) {
    end_monitor(leaving);
    // Nothing that follows from its going is sent to itself any more.
    clients_.erase(leaving.id_);
    leaving.id_ = 0;
    leaving.lookups_.clear();
    while (!leaving.objects_.empty()) {
        forget(*leaving.objects_.back());
    }
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
    show(sender, direction::from_client, bytes, message_head.size);
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
    case UBUS_MSG_SUBSCRIBE:
        subscribe(sender, message_head, given);
        break;
    case UBUS_MSG_UNSUBSCRIBE:
        unsubscribe(sender, message_head, given);
        break;
    case UBUS_MSG_NOTIFY:
        notify(sender, message_head, given);
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

void broker::reply_status(client& asking, const head& request, std::uint32_t status) {
    message answer(asking.out_, UBUS_MSG_STATUS, request.seq, request.peer);
    answer.put_u32(UBUS_ATTR_STATUS, status);
    send(asking, answer);
}

bool broker::make_room(client& receiver, const message& ready, std::size_t more) {
    if (!ready.fits(more)) {
        receiver.on_full();
    }
    return ready.fits(more);
}

void broker::send(client& receiver, message& ready) {
    // No reader could take a message above the limit, and who is leaving reads no more.
    if (ready.too_long() || receiver.id_ == 0) {
        return;
    }
    if (!monitors_.empty()) {
        // The copies come first, to whom the message is for, too.
        const std::vector<std::uint8_t> whole = ready.lift();
        show(receiver, direction::to_client, whole.data(), whole.size());
        ready.put_back(whole);
    }
    // A client that reads too slowly loses whole messages; the daemon does not wait for it.
    if (make_room(receiver, ready)) {
        ready.commit();
        receiver.on_output();
    }
}

object* broker::find_object(std::uint32_t id) const {
    const auto found = objects_.find(id);
    return found == objects_.end() ? nullptr : found->second.get();
}

std::uint32_t broker::unused_id() const {
    for (;;) {
        const std::uint32_t id = random_u32();
        if (id > UBUS_SYSTEM_OBJECT_MAX && clients_.count(id) == 0 && objects_.count(id) == 0 &&
            types_.count(id) == 0) {
            return id;
        }
    }
}

} // namespace busd
