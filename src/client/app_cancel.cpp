/// cancel(): the end of everything that is under way.
#include "client/app_side.h"

#include "client/handover.h"
#include "client/one_shot.h"
#include "tarn/error.h"

#include <utility>

namespace tarn {

/// Joins a cancellation that is under way: what it has not ended yet is ended by both, in turns.
app_side::cancellation app_side::begin_cancel() {
    const lock_guard guard(lock_);
    if (!cancelling()) {
        ++era_;
    }
    // What was asked for before is ended by this one, so no older one may begin the next life.
    ++newest_cancel_;
    canceller_ = std::this_thread::get_id();
    ended_connects_ = {connect_handlers_.newest(), false};
    ended_disconnects_ = {disconnect_handlers_.newest(), false};
    bridge_.end_life();
    if (connection_) {
        take_step(connection_event::lost);
    }
    for (auto& entry : objects_) {
        entry.second->active = false;
    }
    bridge_.hold_delivery();
    return {era_, newest_cancel_};
}

/// Begins the next life. False when the client has ended, or that is left to a newer cancellation.
bool app_side::end_cancel(const cancellation& ending) {
    const lock_guard guard(lock_);
    if (era_ != ending.since || newest_cancel_ != ending.number || !bridge_.begin_life()) {
        return false;
    }
    ++era_;
    return true;
}

std::shared_ptr<pending> app_side::take_oldest(pending_list& waiting, era since) {
    const lock_guard guard(lock_);
    return era_ == since ? waiting.take_oldest() : nullptr;
}

/// Ends the oldest of those that had begun when `newest` was the number of the newest.
std::shared_ptr<pending> app_side::take_oldest(pending_list& waiting, pending_list::number newest,
                                               era since) {
    const lock_guard guard(lock_);
    return era_ == since ? waiting.take_oldest([newest](const pending& /*entry*/, auto number) {
        return number <= newest;
    })
                         : nullptr;
}

void app_side::tell_everybody(pending_list& waiting, era since, const std::error_code& code) {
    pending_list::number newest = 0;
    {
        const lock_guard guard(lock_);
        newest = waiting.newest();
    }
    tell_all(waiting, newest, false, since, code);
}

void app_side::cancel() {
    disable_auto_connect();
    handover();
    const cancellation begun = begin_cancel();
    const era since = begun.since;
    announce();
    // One at a time, so that a handler that releases another operation's link still prevents that
    // one's report, and one that cancels finds the rest.
    while (const auto ended = take_oldest(invokes_, since)) {
        handover();
        tell_invoke(ended, error::generic::aborted);
    }
    for (auto* waiting : {&add_handlers_, &del_handlers_, &send_handlers_}) {
        while (const auto ended = take_oldest(*waiting, since)) {
            handover();
            const auto handler = static_cast<report&>(*ended).take_handler();
            handler(error::generic::aborted);
        }
    }
    abort_one_shots(since);
    const auto still_cancelling = [&] {
        const lock_guard guard(lock_);
        return era_ == since;
    };
    if (!still_cancelling()) {
        return; // a handler has cancelled as well, and that one has done the rest
    }
    bridge_.process_task_queue(life_id::none);
    // The handlers that wait now are notified; later ones wait for what comes after. The newest
    // cancellation decides where the line is, since it runs until the end.
    const auto disconnected = [&](const pending_list& waiting, ended_by_cancel& ended) {
        const lock_guard guard(lock_);
        if (era_ == since) {
            take_step(connection_event::cancelled);
        }
        if (newest_cancel_ == begun.number) {
            ended = {waiting.newest(), false};
        }
        return ended.newest;
    };
    const auto disconnects = disconnected(disconnect_handlers_, ended_disconnects_);
    announce();
    tell_all(disconnect_handlers_, disconnects, false, since, {});
    const auto connects = disconnected(connect_handlers_, ended_connects_);
    announce();
    tell_all(connect_handlers_, connects, false, since, error::generic::aborted);
    handover();
    if (!end_cancel(begun)) {
        return;
    }
    bridge_.request_drain();
    do_after_cancel();
}

/// Does what other threads have requested while cancel() ran, too late to be ended by it.
void app_side::do_after_cancel() {
    era since = 0;
    bool disconnect_asked = false;
    bool connecting = false;
    {
        const lock_guard guard(lock_);
        if (cancelling()) {
            return;
        }
        since = era_;
        disconnect_asked = std::exchange(ended_disconnects_.more_after, false);
        connecting =
            std::exchange(ended_connects_.more_after, false) || (reconnection_ && !retry_due_);
        if (connecting) {
            take_step(connection_event::connect);
        }
    }
    announce();
    if (disconnect_asked) {
        tell_everybody(disconnect_handlers_, since, {});
        if (!connecting) {
            tell_everybody(connect_handlers_, since, error::generic::aborted);
        }
    }
}

void app_side::drop_all() noexcept {
    state_signal changed;
    std::shared_ptr<connection_ctx> connection;
    std::shared_ptr<utils::event_loop::timer> timer;
    backoff_ptr backoff;
    decltype(objects_) objects;
    {
        const lock_guard guard(lock_);
        state_ = client::state::disconnected;
        connection_id_ = connection_id::none;
        changed.swap(state_changed_);
        ++signal_;
        connection.swap(connection_);
        timer.swap(reconnect_timer_);
        backoff = end_reconnection();
        objects.swap(objects_);
    }
    const auto take = [this](pending_list& waiting) {
        const lock_guard guard(lock_);
        return waiting.take_oldest();
    };
    while (const auto ended = take(invokes_)) {
        static_cast<invoke_ctx&>(*ended).take_handler();
    }
    while (const auto ended = take(one_shots_)) {
        auto& operation = static_cast<one_shot&>(*ended);
        const auto stopped = std::exchange(operation.timer, nullptr);
        operation.drop_handler();
    }
    for (auto* waiting : {&connect_handlers_, &disconnect_handlers_, &add_handlers_, &del_handlers_,
                          &send_handlers_}) {
        while (const auto ended = take(*waiting)) {
            static_cast<report&>(*ended).take_handler();
        }
    }
}

} // namespace tarn
