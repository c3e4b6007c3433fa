/// The application's side of tarn::bus: the beginning of its operations, and the end of those that
/// have one.
#include "client/app_side.h"

#include "client/bus_name.h"
#include "client/handover.h"
#include "client/loop_side.h"
#include "client/one_shot.h"
#include "client/standing.h"
#include "tarn/error.h"

#include <utility>

namespace tarn {

utils::link app_side::begin(standing& operation) {
    handover();
    bridge_.post_to_uloop(operation.begin_task);
    return operation.handle();
}

/// Sent as a call of the daemon's own object, whose answer is the daemon's.
utils::link app_side::send_event(const std::string& id, const bus::table& data,
                                 const bus::completion_handler& handler) {
    client::result_handler done;
    if (handler) {
        done = [handler](const std::list<blob::attr>& /*replies*/, const std::error_code& code) {
            handler(code);
        };
    }
    if (has_nul(id)) {
        return report_later(handler, make_error_code(error::msg::invalid_argument));
    }
    bus::table message;
    message.emplace("data", data);
    message.emplace("id", id);
    return invoke_object(UBUS_SYSTEM_OBJECT_EVENT, {}, "send", message, nullptr, done,
                         std::chrono::seconds::zero());
}

utils::link app_side::begin(one_shot& operation, const std::chrono::seconds& limit) {
    std::shared_ptr<utils::event_loop::timer> timer;
    if (limit != std::chrono::seconds::zero()) {
        timer = bridge_.get_eloop()->create_timer();
    }
    bool begun = false;
    {
        const lock_guard guard(lock_);
        if (!cancelling()) {
            one_shots_.add(operation);
            operation.timer = timer;
            begun = true;
        }
    }
    if (!begun) {
        return refuse(operation, error::generic::aborted);
    }
    handover();
    try {
        if (timer) {
            timer->set_timeout(limit);
            timer->set_handler(
                [this, watched = std::weak_ptr<one_shot>(self_of(operation))] { expire(watched); });
        }
        const lock_guard guard(lock_);
        if (operation.active()) {
            bridge_.post_to_uloop(operation.begin_task);
        }
    } catch (...) {
        if (end(operation)) {
            throw;
        }
        // It has ended, and its handler has been notified.
    }
    return operation.handle();
}

/// Reports an outcome that is known at once.
utils::link app_side::refuse(one_shot& operation, const std::error_code& code) {
    operation.outcome = code;
    {
        const lock_guard guard(lock_);
        one_shots_.add(operation);
    }
    try {
        bridge_.schedule_task(operation.done_task);
    } catch (...) {
        if (end(operation)) {
            throw;
        }
    }
    return operation.handle();
}

/// Ends an operation and calls its handler, unless it has ended.
void app_side::end(one_shot& operation, const std::error_code& code) {
    if (const auto ended = end(static_cast<pending&>(operation))) {
        const auto timer = std::exchange(operation.timer, nullptr);
        operation.tell(code);
    }
}

void app_side::complete(one_shot& operation) {
    assert_application_side();
    end(operation, operation.outcome);
}

void app_side::drop(one_shot& operation) noexcept {
    if (const auto ended = end(static_cast<pending&>(operation))) {
        const auto timer = std::exchange(operation.timer, nullptr);
        operation.drop_handler();
    }
}

void app_side::give_up(one_shot& operation) noexcept {
    if (const auto ended = end(static_cast<pending&>(operation))) {
        const auto timer = std::exchange(operation.timer, nullptr);
        operation.drop_handler();
        bridge_.post_ready(operation.stop_task);
    }
}

void app_side::expire(const std::weak_ptr<one_shot>& watched) {
    // The timer's handler, which holds the argument, is destroyed with the timer.
    const auto operation = watched.lock();
    if (!operation) {
        return;
    }
    if (const auto ended = end(static_cast<pending&>(*operation))) {
        bridge_.post_ready(operation->stop_task);
        const auto timer = std::exchange(operation->timer, nullptr);
        operation->tell(error::msg::timeout);
    }
}

void app_side::abort_one_shots(era since) {
    // A handler may begin the same again, which is refused and reported like all that is known at
    // once: those of now are the ones to end.
    pending_list::number newest = 0;
    {
        const lock_guard guard(lock_);
        newest = one_shots_.newest();
    }
    while (const auto ended = take_oldest(one_shots_, newest, since)) {
        handover();
        auto& operation = static_cast<one_shot&>(*ended);
        bridge_.post_ready(operation.stop_task);
        const auto timer = std::exchange(operation.timer, nullptr);
        operation.tell(error::generic::aborted);
    }
}

} // namespace tarn
