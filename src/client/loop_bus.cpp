/// Standing operations over the connections: what is registered, restored and ended.
#include "client/loop_bus.h"

#include "client/app_side.h"
#include "client/bus_records.h"
#include "client/loop_side.h"
#include "client/side.h"

#include <algorithm>
#include <utility>

namespace tarn {

namespace {

template <class List, class Operation>
bool erase(List& operations, const Operation& removed) {
    const auto found = std::find_if(operations.begin(), operations.end(),
                                    [&](const auto& entry) { return entry.get() == &removed; });
    if (found == operations.end()) {
        return false;
    }
    operations.erase(found);
    return true;
}

/// A connection that ended in the middle of a registration is reported by the next one.
void tell_outcome(standing& operation, const std::error_code& code) {
    if (code != error::msg::connection_failed) {
        operation.tell_registered(code);
    }
}

} // namespace

loop_bus::loop_bus(task_bridge& bridge, app_side& app, loop_side& loop)
    : bridge_(bridge)
    , app_(app)
    , loop_(loop) {}

bus_records& loop_bus::records() {
    return loop_.connection()->bus;
}

life_id loop_bus::life() const {
    return loop_.connection() ? loop_.connection()->life : life_id::none;
}

bool loop_bus::follows_objects() const {
    return !watches_.empty() || !subscriptions_.empty() || !waits_.empty();
}

// --- beginning ---

void loop_bus::add(listener& added) {
    assert_loop_side();
    added.place.add_to(listeners_, added);
    restore(added);
}

void loop_bus::add(presence_watch& added) {
    assert_loop_side();
    added.place.add_to(watches_, added);
    restore(added);
}

void loop_bus::add(subscription& added) {
    assert_loop_side();
    added.place.add_to(subscriptions_, added);
    if (is_exact(added.path)) {
        restore(added);
    } else {
        added.tell_change(bus::subscription::refused, error::msg::invalid_argument);
    }
}

void loop_bus::add(subscribers_watch& added) {
    assert_loop_side();
    added.place.add_to(subscribers_watches_, added);
    const auto object = published(added.name);
    added.tell(object && object->object.has_subscribers);
}

void loop_bus::add(message_watch& added) {
    assert_loop_side();
    added.place.add_to(monitors_, added);
    restore(added);
}

void loop_bus::add(wait_operation& added) {
    assert_loop_side();
    added.place.add_to(waits_, added);
    restore(added);
}

// --- restoring ---

void loop_bus::restore() {
    assert_loop_side();
    for (const auto& operation : monitors_) {
        restore(*operation);
    }
    for (const auto& operation : listeners_) {
        restore(*operation);
    }
    for (const auto& operation : watches_) {
        restore(*operation);
    }
    for (const auto& operation : subscriptions_) {
        if (is_exact(operation->path)) {
            restore(*operation);
        }
    }
    // Restoring one may end others, which leave the list then.
    const connection_id present = loop_.connection()->id;
    const auto is_left = [present](const auto& entry) {
        return entry->looked_for_on != present;
    };
    for (;;) {
        const auto next = std::find_if(waits_.begin(), waits_.end(), is_left);
        if (next == waits_.end()) {
            return;
        }
        const std::shared_ptr<wait_operation> operation = *next;
        operation->looked_for_on = present;
        restore(*operation);
    }
}

void loop_bus::restore(listener& operation) {
    tell_outcome(operation, listen_to(operation.pattern));
}

void loop_bus::restore(presence_watch& operation) {
    tell_outcome(operation, restore_presence(operation));
}

std::error_code loop_bus::restore_presence(presence_watch& watch) {
    if (const std::error_code status = follow_objects()) {
        return status;
    }
    return find(watch.pattern, [&watch](const ubus_object_data& object) {
        watch.appeared(object.id, object.path);
    });
}

void loop_bus::restore(wait_operation& operation) {
    // Listening comes first, so that nothing appears unnoticed while it is looked for.
    std::error_code status = follow_objects();
    operation.looking = true;
    for (auto& entry : operation.present) {
        // Noted at once: events that follow it may be handled before the look-up returns.
        const std::error_code found = find(
            entry.first, [&entry](const ubus_object_data& object) { entry.second = object.id; });
        if (found == error::msg::no_memory) {
            status = found;
        }
    }
    // One may have gone while another was looked for: what says so has arrived by now.
    loop_.take_postponed();
    operation.looking = false;
    if (operation.all_present()) {
        check(operation);
    } else if (status && status != error::msg::connection_failed && erase(waits_, operation)) {
        operation.outcome = status;
        bridge_.post_from_uloop(operation.done_task);
        request_follow_up();
    }
}

/// Ends a wait for what is there.
void loop_bus::check(wait_operation& operation) {
    if (operation.looking || !operation.all_present()) {
        return;
    }
    const auto found = std::find_if(waits_.begin(), waits_.end(),
                                    [&](const auto& entry) { return entry.get() == &operation; });
    if (found != waits_.end()) {
        const std::shared_ptr<wait_operation> ended = *found;
        waits_.erase(found);
        bridge_.post_from_uloop(ended->done_task);
        request_follow_up();
    }
}

/// Has done what callbacks have found to do, when nothing of libubus is on the stack.
void loop_bus::request_follow_up() noexcept {
    if (!std::exchange(following_up_, true)) {
        bridge_.post_within(follow_up_task_);
    }
}

void loop_bus::follow_up() {
    assert_loop_side();
    following_up_ = false;
    // An object that has appeared may have gone again, or been replaced.
    loop_.take_postponed();
    for (const auto& operation : subscriptions_) {
        if (const std::uint32_t id = std::exchange(operation->wanted, 0)) {
            subscribe(*operation, id);
        }
    }
    stop_listening();
}

// --- the end of the connection ---

void loop_bus::on_end() {
    assert_loop_side();
    for (const auto& operation : watches_) {
        operation->all_gone();
    }
    for (const auto& operation : subscriptions_) {
        operation->wanted = 0;
        operation->attempted = 0;
        operation->record = nullptr;
        operation->calls.clear();
        if (std::exchange(operation->subscribed_to, 0) != 0) {
            operation->tell_change(bus::subscription::lost, error::msg::connection_failed);
        }
    }
    for (const auto& operation : subscribers_watches_) {
        operation->tell(false);
    }
    for (const auto& operation : waits_) {
        for (auto& entry : operation->present) {
            entry.second = 0;
        }
    }
}

// --- ending ---

void loop_bus::remove(const listener& removed) {
    assert_loop_side();
    erase(listeners_, removed);
    stop_listening();
}

void loop_bus::remove(const presence_watch& removed) {
    assert_loop_side();
    erase(watches_, removed);
    stop_listening();
}

void loop_bus::remove(const subscribers_watch& removed) {
    assert_loop_side();
    erase(subscribers_watches_, removed);
}

void loop_bus::remove(const wait_operation& removed) {
    assert_loop_side();
    erase(waits_, removed);
    stop_listening();
}

void loop_bus::drop_all() noexcept {
    const auto drop = [](auto& operations) {
        for (const auto& operation : operations) {
            operation->drop();
        }
        operations.clear();
    };
    drop(listeners_);
    drop(watches_);
    drop(subscriptions_);
    drop(subscribers_watches_);
    drop(monitors_);
    waits_.clear();
}

} // namespace tarn
