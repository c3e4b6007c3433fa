/// The application's side of calls of other processes' objects, and of reports.
#include "client/app_side.h"

#include "client/bus_name.h"
#include "client/handover.h"
#include "client/loop_side.h"
#include "counted.h"
#include "tarn/error.h"

#include <utility>

namespace tarn {

std::shared_ptr<pending> app_side::end(pending& entry) noexcept {
    const lock_guard guard(lock_);
    return entry.end();
}

utils::link app_side::invoke(const std::string& path, const std::string& method,
                             const std::multimap<std::string, blob::attr>& args,
                             const std::shared_ptr<const client::reply_handler>& each,
                             const client::result_handler& handler,
                             const std::chrono::seconds& timeout) {
    return invoke_object(0, path, method, args, each, handler, timeout);
}

utils::link app_side::invoke_object(std::uint32_t object, const std::string& path,
                                    const std::string& method,
                                    const std::multimap<std::string, blob::attr>& args,
                                    const std::shared_ptr<const client::reply_handler>& each,
                                    const client::result_handler& handler,
                                    const std::chrono::seconds& timeout) {
    const auto aborted = make_error_code(error::generic::aborted);
    const auto refuse = [&](const std::error_code& code) {
        client::completion_handler told;
        if (handler) {
            told = [handler](const std::error_code& reason) {
                handler({}, reason);
            };
        }
        return report_later(told, code);
    };
    if (cancelling()) {
        return refuse(aborted);
    }
    if (has_nul(path) || has_nul(method)) {
        return refuse(error::msg::invalid_argument);
    }
    const auto call = make_counted<invoke_ctx>(*this, loop_, path, method, args, handler, each);
    call->object = object;
    handover();
    const bool counted = object == 0;
    if (counted) {
        counts_.calls_started.add(); // before it can end
    }
    bool begun = false;
    try {
        begun = timeout == std::chrono::seconds::zero() ? begin_call(*call)
                                                        : begin_limited_call(*call, timeout);
    } catch (...) {
        if (counted) {
            counts_.calls_started.subtract();
        }
        throw;
    }
    handover();
    if (begun) {
        return call->handle();
    }
    count_ended(*call, aborted);
    return refuse(aborted);
}

/// False while cancel() runs. When it throws, the call has not begun.
bool app_side::begin_call(invoke_ctx& call) {
    const lock_guard guard(lock_);
    if (cancelling()) {
        return false;
    }
    invokes_.add(call);
    try {
        bridge_.post_to_uloop(call.begin_task);
    } catch (...) {
        call.end();
        throw;
    }
    return true;
}

/// The same with a timer, whose functions are the application's: the call is pending while they are
/// called, and posted when it still is.
bool app_side::begin_limited_call(invoke_ctx& call, const std::chrono::seconds& timeout) {
    auto timer = bridge_.get_eloop()->create_timer();
    {
        const lock_guard guard(lock_);
        if (cancelling()) {
            return false;
        }
        invokes_.add(call);
        call.timer = timer;
    }
    handover();
    try {
        timer->set_timeout(timeout);
        timer->set_handler(
            [this, watched = std::weak_ptr<invoke_ctx>(self_of(call))] { expire_invoke(watched); });
        const lock_guard guard(lock_);
        if (call.active()) {
            bridge_.post_to_uloop(call.begin_task);
        }
    } catch (...) {
        if (end(call)) {
            throw;
        }
        // It has ended, and its handler has been notified.
    }
    return true;
}

/// Calls the handler of a call that the caller has ended; nothing for null.
void app_side::tell_invoke(const std::shared_ptr<pending>& ended, const std::error_code& code) {
    if (!ended) {
        return;
    }
    count_ended(static_cast<invoke_ctx&>(*ended), code);
    if (const auto handler = static_cast<invoke_ctx&>(*ended).take_handler()) {
        handler({}, code);
    }
}

void app_side::end_invoke(invoke_ctx& call, const std::error_code& code) {
    tell_invoke(end(call), code);
}

/// What is sent to the daemon itself is no call.
void app_side::count_ended(const invoke_ctx& call, const std::error_code& code) noexcept {
    if (call.object == 0) {
        counts_.call_ended(code);
    } else if (!code) {
        counts_.events_sent.add();
    }
}

void app_side::tell_reply(invoke_ctx& call, const blob::attr& reply) {
    std::shared_ptr<const client::reply_handler> each; // kept, whatever it does to the call
    {
        const lock_guard guard(lock_);
        if (!call.active()) {
            return; // and the thread that has ended it may be clearing it
        }
        each = call.each;
    }
    if (each && *each) {
        (*each)(reply);
    }
}

void app_side::complete_invoke(invoke_ctx& call) {
    assert_application_side();
    if (!end(call)) {
        return;
    }
    const auto replies = std::move(call.replies);
    const std::error_code code = !call.outcome && call.status ? call.status : call.outcome;
    count_ended(call, code);
    if (const auto handler = call.take_handler()) {
        handler(replies, code);
    }
}

void app_side::drop_invoke(invoke_ctx& call) noexcept {
    if (end(call)) {
        count_ended(call, call.outcome);
        const auto dropped = call.take_handler();
        call.replies.clear();
    }
}

void app_side::cancel_invoke(invoke_ctx& call) noexcept {
    if (const auto ended = end(call)) {
        if (call.object == 0) {
            counts_.calls_given_up.add();
        }
        const auto dropped = call.take_handler();
        bridge_.post_ready(call.abort_task);
    }
}

void app_side::expire_invoke(const std::weak_ptr<invoke_ctx>& watched) {
    // The timer's handler, which holds the argument, is destroyed with the timer.
    const auto call = watched.lock();
    if (!call) {
        return;
    }
    const auto ended = end(*call);
    if (!ended) {
        return;
    }
    bridge_.post_ready(call->abort_task);
    tell_invoke(ended, error::msg::timeout);
}

// --- reports ---

utils::link app_side::report_later(const client::completion_handler& handler,
                                   const std::error_code& code) {
    if (!handler) {
        return {};
    }
    const auto known = make_counted<known_report>(handler, code);
    bridge_.schedule_task(known->done_task);
    return known->handle();
}

client::completion_handler known_report::take() noexcept {
    return taken_.exchange(true) ? nullptr : std::exchange(handler_, nullptr);
}

void known_report::tell() {
    if (const auto handler = take()) {
        handler(code_);
    }
}

void app_side::give_up(report& waiting) noexcept {
    if (const auto ended = end(waiting)) {
        waiting.take_handler();
    }
}

void app_side::tell(report& waiting, const std::error_code& code) {
    if (const auto ended = end(waiting)) {
        if (const auto handler = waiting.take_handler()) {
            handler(code);
        }
    }
}

} // namespace tarn
