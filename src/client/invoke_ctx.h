/// One pending invocation, and the table of them that callers, the application's loop and released
/// links all work on.
#pragma once

#include "bus.h"
#include "tarn/client.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace tarn {

/// What one invocation has gathered so far. The last owner of the timer disarms it, so the fields'
/// order (destroyed from the bottom up) silences the time limit before anything else goes.
struct invoke_ctx {
    invoke_ctx() = default;
    invoke_ctx(invoke_ctx&& other) noexcept;
    invoke_ctx& operator=(invoke_ctx&&) = delete;
    ~invoke_ctx() = default;

    std::error_code status;        ///< the first reply that failed to decode
    std::list<blob::attr> replies; ///< one table per data reply, in order of arrival
    std::shared_ptr<ubus_request> request;
    client::result_handler handler;                  ///< may be empty
    std::shared_ptr<utils::event_loop::timer> timer; ///< empty without a time limit
    /// Gets the replies in place of `replies`; null for a call that gathers them.
    std::shared_ptr<const client::reply_handler> each;
};

/// The invocations that have been accepted and not yet ended. Safe from any thread.
///
/// An invocation is pending exactly while its context is in here: the table is its only lasting
/// owner, and contexts end under the lock. So whoever takes an invocation out is the one who ends
/// it, and a link that watches the context sees it gone from that moment, however many threads
/// complete, expire, cancel and release at once. The contents (the handler above all, whose
/// captures may run the application's code when destroyed) leave the lock alive, moved out.
class invoke_table {
public:
    using key = ubus_request*;

    /// Makes the entry for `ctx`, keyed by the address of its request.
    void insert(const std::shared_ptr<invoke_ctx>& ctx);

    /// Gives the invocation its timer, unless it has ended already.
    void set_timer(key request, const std::weak_ptr<invoke_ctx>& ctx,
                   const std::shared_ptr<utils::event_loop::timer>& timer);

    /// Takes one decoded reply to the others. Leaves it to the caller to tell when the invocation
    /// has somebody for each reply, whom it returns, or has ended.
    std::shared_ptr<const client::reply_handler>
    add_reply(key request, std::list<blob::attr>& reply, const std::error_code& status);

    /// Ends the invocation of a request that the caller keeps alive (so that its address cannot
    /// belong to a newer one) and hands out its contents; nothing if it has ended already.
    std::optional<invoke_ctx> take(key request);

    /// The same for a caller who only watches the context.
    std::optional<invoke_ctx> take(key request, const std::weak_ptr<invoke_ctx>& ctx);

    /// Ends any one of them; nothing when there is none left.
    std::optional<invoke_ctx> take_any();

private:
    std::optional<invoke_ctx> take_locked(key request);

    std::mutex lock_; ///< guards invokes_; nothing else is locked while it is held
    std::map<key, std::shared_ptr<invoke_ctx>> invokes_;
};

} // namespace tarn
