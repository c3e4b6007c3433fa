/// tarn::ext::watch: follows the state of the connection, from the present one on.
#pragma once

#include "tarn/client.h"
#include "tarn/event_loop.h"
#include "tarn/ext/detail/loop_thread.h"
#include "tarn/link.h"

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

namespace tarn::ext {

namespace detail {

/// What is between the subscription, which is called on any thread, and the loop.
class watched_states final : public utils::link::impl,
                             public std::enable_shared_from_this<watched_states> {
public:
    watched_states(client& bus, client::state_handler handler)
        : bus_(bus)
        , loop_(bus.get_event_loop())
        , handler_(std::make_shared<client::state_handler>(std::move(handler))) {}

    void start() {
        subscription_ = bus_.notify_on_state_change([weak = weak_from_this()](client::state state) {
            if (const auto self = weak.lock()) {
                self->add(state);
            }
        });
        {
            const std::lock_guard<std::mutex> guard(lock_);
            at_start_ = bus_.get_state();
        }
        post();
    }

    void release() override {
        std::shared_ptr<client::state_handler> dropped;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            dropped = std::move(handler_);
            told_.clear();
        }
        subscription_.release();
    }

    bool active() const override {
        const std::lock_guard<std::mutex> guard(lock_);
        return handler_ != nullptr;
    }

private:
    void add(client::state state) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (!handler_) {
                return;
            }
            told_.push_back(state);
        }
        post();
    }

    void post() {
        if (const auto loop = loop_.lock()) {
            loop->post([self = shared_from_this()] { self->report_one(); });
        }
    }

    /// One task for each state, so that those behind one whose handler throws are reported too.
    void report_one() {
        std::shared_ptr<client::state_handler> handler;
        client::state state{};
        {
            const std::lock_guard<std::mutex> guard(lock_);
            const std::optional<client::state> next = take_next();
            if (!handler_ || !next) {
                return;
            }
            handler = handler_;
            state = *next;
            reported_ = state;
        }
        (*handler)(state); // may release this
    }

    /// The state to report, if any. With the lock held.
    std::optional<client::state> take_next() {
        if (!reported_) {
            // The present state. It is taken from the changes where there are some, since the
            // client's own may be a change that the subscribers are yet to be called with.
            const client::state present = told_.empty() ? at_start_ : told_.back();
            told_.clear();
            return present;
        }
        if (told_.empty()) {
            return std::nullopt;
        }
        const client::state next = told_.front();
        told_.pop_front();
        // The same again is no change. It was the present state at the start, and was told to the
        // subscribers after that; or the client has left out what was between.
        return next == *reported_ ? std::nullopt : std::optional(next);
    }

    client& bus_;
    const std::weak_ptr<utils::event_loop> loop_;
    utils::link subscription_;
    mutable std::mutex lock_; ///< guards what follows; not held while the handler runs or goes
    std::shared_ptr<client::state_handler> handler_; ///< null once released
    client::state at_start_ = client::state::disconnected;
    std::optional<client::state> reported_;
    std::deque<client::state> told_; ///< changes that have not been reported
};

} // namespace detail

/// Calls `handler` with the state of the connection, and then with every change of it, until the
/// returned link is released or destroyed. No change that the client reports after the first state
/// is left out or reported twice. (Changes that come before the first report are part of it: it is
/// the newest state then.)
///
/// Unlike client::notify_on_state_change() it begins with the present state, and every call is on
/// the loop. The state may have changed again by then; in `handler`, the argument counts.
///
/// Thread: any. So is the release of the link; on the loop's thread `handler` is not called
///   afterwards, on another one a call that has begun may still be running.
/// Handler: on the application's event loop, never inside watch() or another operation. What it
///   throws passes through the loop's task; the changes behind it are reported all the same.
/// Errors: throws std::logic_error when the client names no event loop, or when `handler` is empty,
///   and what client::notify_on_state_change() throws.
inline utils::scoped_link watch(client& bus, client::state_handler handler) {
    if (!handler) {
        throw std::logic_error("tarn::ext::watch: no handler");
    }
    if (detail::loop_thread::of(bus) == nullptr) {
        throw std::logic_error("tarn::ext::watch: the client names no event loop");
    }
    const auto states = std::make_shared<detail::watched_states>(bus, std::move(handler));
    utils::scoped_link link = misc::aggregate_adapter<utils::link>(states);
    states->start();
    return link;
}

} // namespace tarn::ext
