/// What the kinds of standing operations report, and to which handler.
#include "client/standing_operations.h"

#include "client/app_side.h"
#include "client/exchange_ctx.h"
#include "client/loop_bus.h"
#include "client/served_call.h"
#include "client/side.h"
#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <utility>

namespace tarn {

namespace {

template <class Value>
const Value& data_of(const standing_report& report) {
    return *static_cast<const Value*>(report.data.get());
}

standing_report item_of(std::shared_ptr<const void> data) {
    standing_report report;
    report.what = standing_report::kind::item;
    report.data = std::move(data);
    return report;
}

} // namespace

bool matches(const std::string& pattern, const std::string& name) {
    if (!pattern.empty() && pattern.back() == '*') {
        return name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
    }
    return name == pattern;
}

// --- events ---

listener::listener(app_side& app, loop_bus& loop, const std::string& events,
                   const bus::event_handler& handler, const bus::options& how)
    : standing(app, loop, how, kept(handler))
    , pattern(events) {}

void listener::begin() {
    loop_.add(*this);
}

void listener::end() {
    loop_.remove(*this);
}

void listener::tell(const std::shared_ptr<const event>& received) {
    push(item_of(received));
}

void listener::deliver(const standing_report& report) {
    if (const auto called = handler<bus::event_handler>()) {
        const auto& received = data_of<event>(report);
        (*called)(received.id, received.data);
    }
}

// --- the presence of objects ---

presence_watch::presence_watch(app_side& app, loop_bus& loop, const std::string& paths,
                               const bus::presence_handler& handler, const bus::options& how)
    : standing(app, loop, how, kept(handler))
    , pattern(paths) {}

void presence_watch::begin() {
    loop_.add(*this);
}

void presence_watch::end() {
    loop_.remove(*this);
}

void presence_watch::appeared(std::uint32_t id, const std::string& path) {
    if (present_.count(id) == 0) {
        path_ptr kept;
        app_.bridge().reserve().cover([&] {
            kept = make_counted<std::string>(path);
            present_.emplace(id, kept);
        });
        tell(bus::presence::appeared, id, kept);
    }
}

void presence_watch::gone(std::uint32_t id) {
    const auto found = present_.find(id);
    if (found != present_.end()) {
        tell(bus::presence::gone, id, found->second);
        present_.erase(found);
    }
}

void presence_watch::all_gone() {
    while (!present_.empty()) {
        gone(present_.begin()->first);
    }
}

void presence_watch::tell(bus::presence what, std::uint32_t id, const path_ptr& path) {
    standing_report report;
    report.state = static_cast<int>(what);
    report.id = id;
    report.data = path;
    push(std::move(report));
}

void presence_watch::deliver(const standing_report& report) {
    if (const auto called = handler<bus::presence_handler>()) {
        (*called)(static_cast<bus::presence>(report.state), data_of<std::string>(report),
                  report.id);
    }
}

// --- subscriptions ---

subscription::subscription(app_side& app, loop_bus& loop, const std::string& target,
                           const bus::notification_handler& handler,
                           const bus::subscription_handler& on_change,
                           const bus::subscribe_options& how)
    : standing(app, loop, how, kept(handler), kept(on_change))
    , path(target)
    , has_handler(static_cast<bool>(handler))
    , answers(how.answers) {}

void subscription::begin() {
    loop_.add(*this);
}

void subscription::end() {
    loop_.remove(*this);
}

void subscription::tell_change(bus::subscription now, const std::error_code& code) {
    standing_report report;
    report.state = static_cast<int>(now);
    report.code = code;
    push(std::move(report));
}

void subscription::confirm(std::uint32_t id) {
    if (subscribed_to != id) {
        subscribed_to = id;
        tell_change(bus::subscription::subscribed, error::msg::success);
    }
}

void subscription::lose(std::uint32_t id) {
    if (attempted == id) {
        attempted = 0;
        confirm(id);
    }
    if (subscribed_to == id) {
        subscribed_to = 0;
        tell_change(bus::subscription::lost, error::msg::not_found);
    }
}

void subscription::tell(const std::shared_ptr<notification>& received) {
    push(item_of(received));
}

void subscription::deliver(const standing_report& report) {
    if (report.what == standing_report::kind::change) {
        if (const auto called = change_handler<bus::subscription_handler>()) {
            (*called)(static_cast<bus::subscription>(report.state), report.code);
        }
        return;
    }
    // The one reader: nothing else has it when it is delivered.
    auto& arrived = const_cast<notification&>(data_of<notification>(report));
    if (arrived.call) {
        arrived.call->args = std::move(arrived.args);
    }
    std::shared_ptr<exchange_ctx> context;
    try {
        context = arrived.call ? make_counted<exchange_ctx>(app_, arrived.call)
                               : make_counted<exchange_ctx>(app_, std::move(arrived.args));
    } catch (const std::bad_alloc&) {
        discard(report); // the notifier waits
        app_.counts().delivered.subtract();
        note_dropped();
        return;
    }
    if (const auto called = handler<bus::notification_handler>()) {
        if (const auto answer = (*called)(arrived.method, context)) {
            context->respond(*answer);
        }
    } else {
        context->respond(error::msg::unknown_error); // released just now
    }
}

void subscription::discard(const standing_report& item) noexcept {
    const auto& dropped = data_of<notification>(item);
    if (!dropped.call) {
        return;
    }
    if (is_loop_thread) {
        // At once: the task that unsubscribes may be queued already, and the daemon passes on no
        // answer after that.
        dropped.call->status = error::msg::unknown_error;
        loop_.answer(*dropped.call);
    } else {
        app_.complete_call(*dropped.call, error::msg::unknown_error);
    }
}

// --- subscribers of our own objects ---

subscribers_watch::subscribers_watch(app_side& app, loop_bus& loop, const std::string& object,
                                     const bus::subscribers_handler& handler)
    : standing(app, loop, {}, kept(handler))
    , name(object) {}

void subscribers_watch::begin() {
    loop_.add(*this);
}

void subscribers_watch::end() {
    loop_.remove(*this);
}

void subscribers_watch::tell(bool has_subscribers) {
    if (has_subscribers != std::exchange(told_, has_subscribers)) {
        standing_report report;
        report.state = has_subscribers ? 1 : 0;
        push(std::move(report));
    }
}

void subscribers_watch::deliver(const standing_report& report) {
    if (const auto called = handler<bus::subscribers_handler>()) {
        (*called)(report.state != 0);
    }
}

// --- the monitor ---

message_watch::message_watch(app_side& app, loop_bus& loop, const bus::message_handler& handler,
                             const bus::options& how)
    : standing(app, loop, how, kept(handler)) {}

void message_watch::begin() {
    loop_.add(*this);
}

void message_watch::end() {
    loop_.remove(*this);
}

void message_watch::tell(const std::shared_ptr<const bus::message>& passed) {
    push(item_of(passed));
}

void message_watch::deliver(const standing_report& report) {
    if (const auto called = handler<bus::message_handler>()) {
        (*called)(data_of<bus::message>(report));
    }
}

} // namespace tarn
