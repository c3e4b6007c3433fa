/// The completion handlers of operations in flight.
#include "client/pending_handlers.h"

#include <utility>

namespace tarn {

pending_handlers::ticket pending_handlers::add(const handler& h) {
    if (!h) {
        return {};
    }
    auto shared = std::make_shared<handler>(h);
    const std::weak_ptr<handler> watched = shared;
    const std::lock_guard<std::mutex> guard(lock_);
    entries_.emplace_hint(entries_.end(), newest_ + 1, std::move(shared));
    ++newest_;
    return {watched, newest_};
}

utils::link pending_handlers::link_to(const ticket& t) {
    const auto owner = t.watched.lock();
    if (!owner) {
        return {};
    }
    return misc::create_link(owner, [this, t] { take(t); });
}

pending_handlers::handler pending_handlers::take(const ticket& t) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto entry = entries_.find(t.no);
    if (entry == entries_.end()) {
        return nullptr;
    }
    handler taken = std::move(*entry->second);
    entries_.erase(entry);
    return taken;
}

pending_handlers::number pending_handlers::newest() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return newest_;
}

pending_handlers::handler pending_handlers::take_oldest(number last) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto oldest = entries_.begin();
    if (oldest == entries_.end() || oldest->first > last) {
        return nullptr;
    }
    handler taken = std::move(*oldest->second);
    entries_.erase(oldest);
    return taken;
}

} // namespace tarn
