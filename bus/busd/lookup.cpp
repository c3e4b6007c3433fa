/// Look-ups: which objects there are. A long answer goes out in pieces as it is read, so that it
/// never overruns the client's queue, and keeps nobody else waiting.
#include "broker.h"

#include <string_view>
#include <utility>

namespace busd {
namespace {

// Bytes that wait for a client before its answer is continued.
constexpr std::size_t piece = 64 * 1024;

} // namespace

void broker::lookup(client& sender, const head& request, const attributes& given) {
    const char* text = bus::get_text(given[UBUS_ATTR_OBJPATH]);
    std::string_view path = text == nullptr ? "*" : text;
    if (path.empty()) {
        reply_status(sender, request, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    const bool prefix = path.back() == '*';
    if (prefix) {
        path.remove_suffix(1);
    }
    const std::size_t size = sizeof(pending_lookup) + path.size();
    if (sender.lookups_size_ + size > outbox::limit + sizeof(pending_lookup)) {
        reply_status(sender, request, UBUS_STATUS_NO_MEMORY);
        return;
    }
    sender.lookups_size_ += size;
    // Asked for all, none is an answer too.
    sender.lookups_.push_back(
        {request, std::string(path), prefix, text == nullptr, false, std::string()});
    resume(sender);
}

void broker::resume(client& asking) {
    auto& waiting = asking.lookups_;
    while (!waiting.empty() && answer_lookup(asking, waiting.front())) {
        asking.lookups_size_ -= sizeof(pending_lookup) + waiting.front().path.size();
        waiting.pop_front();
    }
}

// Objects come and go meanwhile: each that is there all the time is described once.
bool broker::answer_lookup(client& asking, pending_lookup& request) {
    const std::string& path = request.path;
    auto at = request.begun ? paths_.upper_bound(request.last) : paths_.lower_bound(path);
    const auto matches = [&] {
        return at != paths_.end() &&
               (request.prefix ? at->first.compare(0, path.size(), path) == 0 : at->first == path);
    };
    for (; matches(); ++at) {
        if (asking.out_.size() >= piece || !describe(asking, request.request, *at->second)) {
            return false;
        }
        request.any = request.begun = true;
        request.last = at->first;
    }
    return asking.out_.size() < piece && end_lookup(asking, request);
}

bool broker::describe(client& asking, const head& request, const object& found) {
    if (found.type == nullptr) {
        return true;
    }
    message answer(asking.out_, UBUS_MSG_DATA, request.seq, request.peer);
    answer.put_text(UBUS_ATTR_OBJPATH, *found.path)
        .put_u32(UBUS_ATTR_OBJID, found.id)
        .put_u32(UBUS_ATTR_OBJTYPE, found.type->id)
        .put_payload(UBUS_ATTR_SIGNATURE, found.type->signature.data(),
                     found.type->signature.size());
    if (!make_room(asking, answer)) {
        return false;
    }
    send(asking, answer);
    return true;
}

bool broker::end_lookup(client& asking, const pending_lookup& request) {
    message answer(asking.out_, UBUS_MSG_STATUS, request.request.seq, request.request.peer);
    answer.put_u32(UBUS_ATTR_STATUS, request.any ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
    if (!make_room(asking, answer)) {
        return false;
    }
    send(asking, answer);
    return true;
}

} // namespace busd
