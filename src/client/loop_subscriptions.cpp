/// Subscriptions on the loop thread, from the look at the bus to the notifications.
#include "client/app_side.h"
#include "client/bus_records.h"
#include "client/callback_gate.h"
#include "client/client_impl.h"
#include "client/counters.h"
#include "client/loop_bus.h"
#include "client/loop_side.h"
#include "client/served_call.h"

#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <utility>

namespace tarn {

namespace {

constexpr int answer_unknown_error = 9; // UBUS_STATUS_UNKNOWN_ERROR

} // namespace

void loop_bus::restore(subscription& operation) {
    const std::error_code followed = follow_objects();
    if (followed == error::msg::connection_failed) {
        return;
    }
    operation.tell_registered(followed);
    std::uint32_t id = 0;
    const std::error_code found = find_one(operation.path, id);
    if (!found && id != 0) {
        subscribe(operation, id);
    } else if (found == error::msg::no_memory) {
        operation.tell_change(bus::subscription::refused, found);
    }
}

void loop_bus::subscribe(subscription& operation, std::uint32_t id) {
    ubus_context* const bus = loop_.caught_up_bus();
    if (bus == nullptr || operation.subscribed_to == id) {
        return;
    }
    if (std::exchange(operation.subscribed_to, 0) != 0) {
        operation.tell_change(bus::subscription::lost, error::msg::not_found);
    }
    int status = 0;
    if (operation.record == nullptr) {
        auto& subscribers = records().subscribers;
        try {
            operation.record = &subscribers.emplace_back(operation);
        } catch (const std::bad_alloc&) {
            operation.tell_change(bus::subscription::refused, error::msg::no_memory);
            return;
        }
        operation.record->native().cb = &loop_bus::on_notification;
        operation.record->native().remove_cb = &loop_bus::on_removal;
    }
    if (operation.record->native().obj.id == 0) {
        status = ubus_register_subscriber(bus, &operation.record->native());
        if (loop_.usable_bus() != bus) {
            return; // reported as the loss of the connection, with which the record has gone
        }
    }
    operation.attempted = id;
    if (status == 0) {
        status = ubus_subscribe(bus, &operation.record->native(), id);
    }
    const bool lasts = std::exchange(operation.attempted, 0) == id;
    if (loop_.usable_bus() != bus) {
        return; // reported as the loss of the connection
    }
    const std::error_code code = client_impl::to_msg_error(status);
    if (!code) {
        if (lasts) {
            operation.confirm(id);
        }
    } else if (code != error::msg::not_found) {
        operation.tell_change(bus::subscription::refused, code);
    } // else it has gone again
}

void loop_bus::remove(subscription& removed) {
    assert_loop_side();
    subscriber_record* const record = std::exchange(removed.record, nullptr);
    if (record != nullptr) {
        record->owner = nullptr;
        record->answer_without = removed.has_handler && removed.answers ? answer_unknown_error : 0;
        unregister(removed, *record);
    }
    const auto& operation = removed;
    subscriptions_.remove_if([&](const auto& entry) { return entry.get() == &operation; });
    stop_listening();
}

/// The daemon passes on no answer of a subscriber that has gone, and the notifier would wait for
/// it. So all that was sent to this one is answered first, and to that end the daemon is asked to
/// send no more.
void loop_bus::unregister(subscription& removed, subscriber_record& record) {
    ubus_context* const bus = loop_.caught_up_bus();
    const auto is_usable = [&] {
        return bus != nullptr && loop_.usable_bus() == bus;
    };
    if (!is_usable() || record.native().obj.id == 0) {
        return;
    }
    if (removed.subscribed_to != 0) {
        ubus_unsubscribe(bus, &record.native(), removed.subscribed_to);
        loop_.take_postponed();
    }
    if (is_usable()) {
        removed.calls.refuse(bus, answer_unknown_error);
    }
    if (is_usable() && ubus_unregister_subscriber(bus, &record.native()) == 0 && is_usable()) {
        records().subscribers.remove_if(
            [&record](const subscriber_record& entry) { return &entry == &record; });
    }
}

void loop_bus::answer(served_call& call) {
    loop_.complete_sync(call);
}

void loop_bus::on_removal(ubus_context* /*context*/, ubus_subscriber* subscriber,
                          std::uint32_t id) {
    guard_callback([=] {
        subscription* const operation = subscriber_record::of(*subscriber).owner;
        if (operation != nullptr) {
            operation->lose(id);
        }
    });
}

int loop_bus::on_notification(ubus_context* /*context*/, ubus_object* subscriber,
                              ubus_request_data* request, const char* method, blob_attr* msg) {
    return guard_callback(
        [=] {
            const subscriber_record& record = subscriber_record::of(*subscriber);
            loop_side& loop = client_impl::get_instance({}).loop();
            if (record.owner == nullptr || method == nullptr) {
                loop.before_write(); // libubus answers
                return record.answer_without;
            }
            return loop.bus().take_notification(*record.owner, *request, method, msg);
        },
        answer_unknown_error);
}

int loop_bus::take_notification(subscription& target, ubus_request_data& request,
                                const char* method, blob_attr* msg) {
    assert_loop_side();
    counters& counts = app_.counts();
    if (target.attempted != 0) {
        target.confirm(target.attempted);
    }
    counts.notifications_received.add();
    counts.bytes_received.add(msg ? blob_len(msg) : 0);
    int answer = 0;
    if (target.has_handler && target.active()) {
        try {
            const auto arrived = make_counted<notification>();
            arrived->method = method;
            arrived->args = blob::utils::to_table(msg);
            if (target.answers) {
                constexpr std::size_t no_method = 0;
                arrived->call = make_counted<served_call>(app_, loop_, loop_.connection()->id,
                                                          request, no_method, nullptr);
                target.calls.note(arrived->call);
            }
            // Before it is passed on, which may answer it.
            request.deferred = target.answers;
            target.tell(arrived);
        } catch (const std::exception&) {
            // It cannot be decoded; or out of memory, which looks alike.
            request.deferred = false;
            answer = client_impl::to_ubus_msg_status(error::msg::parse_error);
        }
    } else if (target.has_handler && target.answers) {
        // Released just now: as what is dropped undelivered.
        answer = answer_unknown_error;
    }
    if (!request.deferred) {
        loop_.before_write(); // libubus may answer
    }
    return answer;
}

} // namespace tarn
