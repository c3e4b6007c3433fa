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
    return {watched, handlers_.insert(handlers_.end(), std::move(shared))};
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
    handler taken = std::move(**t.position);
    handlers_.erase(t.position);
    return taken;
}

pending_handlers::handler pending_handlers::take_oldest() {
    const std::lock_guard<std::mutex> guard(lock_);
    if (handlers_.empty()) {
        return nullptr;
    }
    handler taken = std::move(*handlers_.front());
    handlers_.pop_front();
    return taken;
}

} // namespace tarn
