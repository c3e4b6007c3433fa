/// The table of pending invocations.
#include "client/invoke_ctx.h"

namespace tarn {

invoke_ctx::invoke_ctx(invoke_ctx&& other) noexcept
    : status(other.status)
    , replies(std::move(other.replies))
    , request(std::move(other.request))
    , handler(std::move(other.handler))
    , timer(std::move(other.timer))
    , each(std::move(other.each)) {
    // A moved-from std::function need not be empty; this one must not keep what it captured.
    other.handler = nullptr;
}

void invoke_table::insert(const std::shared_ptr<invoke_ctx>& ctx) {
    const std::lock_guard<std::mutex> guard(lock_);
    invokes_.emplace(ctx->request.get(), ctx);
}

void invoke_table::set_timer(key request, const std::weak_ptr<invoke_ctx>& ctx,
                             const std::shared_ptr<utils::event_loop::timer>& timer) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (ctx.expired()) {
        return;
    }
    const auto entry = invokes_.find(request);
    if (entry != invokes_.end()) {
        entry->second->timer = timer;
    }
}

std::shared_ptr<const client::reply_handler>
invoke_table::add_reply(key request, std::list<blob::attr>& reply, const std::error_code& status) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto entry = invokes_.find(request);
    if (entry == invokes_.end()) {
        return nullptr;
    }
    invoke_ctx& ctx = *entry->second;
    if (!ctx.status) {
        ctx.status = status;
    }
    if (!ctx.each) {
        ctx.replies.splice(ctx.replies.end(), reply);
    }
    return ctx.each;
}

std::optional<invoke_ctx> invoke_table::take(key request) {
    const std::lock_guard<std::mutex> guard(lock_);
    return take_locked(request);
}

std::optional<invoke_ctx> invoke_table::take(key request, const std::weak_ptr<invoke_ctx>& ctx) {
    const std::lock_guard<std::mutex> guard(lock_);
    // Contexts end under the lock only, so one that is still alive here is still in the table.
    if (ctx.expired()) {
        return std::nullopt;
    }
    return take_locked(request);
}

std::optional<invoke_ctx> invoke_table::take_locked(key request) {
    const auto entry = invokes_.find(request);
    if (entry == invokes_.end()) {
        return std::nullopt;
    }
    std::optional<invoke_ctx> taken(std::move(*entry->second));
    invokes_.erase(entry);
    return taken;
}

std::optional<invoke_ctx> invoke_table::take_any() {
    const std::lock_guard<std::mutex> guard(lock_);
    return invokes_.empty() ? std::nullopt : take_locked(invokes_.begin()->first);
}

} // namespace tarn
