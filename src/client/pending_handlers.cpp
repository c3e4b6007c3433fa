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
    const auto position = entries_.insert(entries_.end(), {std::move(shared), newest_ + 1});
    ++newest_;
    return {watched, position};
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
    if (t.watched.expired()) {
        return nullptr;
    }
    handler taken = std::move(*t.position->function);
    entries_.erase(t.position);
    return taken;
}

pending_handlers::number pending_handlers::newest() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return newest_;
}

pending_handlers::handler pending_handlers::take_oldest(number last) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (entries_.empty() || entries_.front().no > last) {
        return nullptr;
    }
    handler taken = std::move(*entries_.front().function);
    entries_.pop_front();
    return taken;
}

} // namespace tarn
