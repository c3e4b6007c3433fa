/// What passes over the fake bus: events, notifications with their subscribers, and what a monitor
/// sees.
#include "fake_bus_core.h"
#include "fake_bus_reports.h"
#include "transfer.h"

#include "tarn/error.h"
#include "tarn/link.h"

#include <utility>

namespace tarn::testing {

using misc::aggregate_adapter;
using kind = standing::kind;

// --- events ---

void fake_bus::core::emit_locked(const std::string& id, const table& data) {
    const auto shared = std::make_shared<const table>(data);
    for (const auto& each : in_place(kind::listener)) {
        if (matches(each->subject, id)) {
            each->add_limited([id, shared](const standing_handlers& handlers) {
                if (handlers.event) {
                    handlers.event(id, *shared);
                }
            });
        }
    }
}

void fake_bus::core::emit(const std::string& id, const table& data) {
    const table arrived = transferred_for_test(data, "the event " + id);
    const guard locked(lock_);
    emit_locked(id, arrived);
}

std::error_code fake_bus::core::check_event(const std::string& id, const table& data) const {
    try {
        transferred(data);
    } catch (const std::exception&) {
        return error::msg::parse_error;
    }
    return has_nul(id)                      ? make_error_code(error::msg::invalid_argument)
           : !connected_                    ? make_error_code(error::msg::connection_failed)
           : id.compare(0, 5, "ubus.") == 0 ? make_error_code(error::msg::permission_denied)
                                            : refusal(operation::send_event);
}

utils::link fake_bus::core::send_event(const std::string& id, const table& data,
                                       const completion_handler& handler) {
    std::error_code code;
    {
        const guard locked(lock_);
        sent_.push_back({id, data});
        code = check_event(id, data);
    }
    return report(handler, code);
}

// --- subscriptions ---

void fake_bus::core::subscribe_now(standing& each) {
    const std::error_code refused = own_.count(each.subject) != 0
                                        ? make_error_code(error::msg::invalid_argument)
                                        : refusal(operation::subscribe);
    if (refused) {
        each.add(change_report(bus::subscription::refused, refused));
    } else {
        each.add_change({}, find(each.subject)->id,
                        change_report(bus::subscription::subscribed, error::msg::success));
    }
}

std::vector<std::shared_ptr<const served_call>>
fake_bus::core::notify_from(const std::string& path, const std::string& method, const table& data,
                            bool asked) {
    const table arrived = transferred_for_test(data, "the notification " + path + '.' + method);
    std::vector<standing_ptr> subscribers;
    {
        const guard locked(lock_);
        for (const auto& each : active()) {
            if (each->sort == kind::subscription && each->subject == path &&
                !each->present().empty()) {
                subscribers.push_back(each);
            }
        }
    }
    std::vector<std::shared_ptr<const served_call>> questions;
    // Without the lock: contexts take the client's.
    for (const auto& each : subscribers) {
        const auto served = std::make_shared<served_call>();
        const auto context = make_context_(served, table(arrived));
        if (!asked || !each->answers) {
            context->respond(error::msg::success);
        }
        questions.push_back(served);
        each->add_limited(
            [method, context](const standing_handlers& handlers) {
                const auto status = handlers.notification
                                        ? handlers.notification(method, context)
                                        : std::optional<std::error_code>(error::msg::success);
                if (status) {
                    context->respond(*status);
                }
            },
            [context] { context->respond(error::msg::unknown_error); });
    }
    return questions;
}

// --- the publisher's side ---

void fake_bus::core::follow_subscribers(standing& each) {
    if (each.sort != kind::publisher) {
        return;
    }
    const auto count = subscribers_.find(each.subject);
    const bool now = connected_ && own_.count(each.subject) != 0 && count != subscribers_.end() &&
                     count->second != 0;
    if (now == each.present().empty()) {
        each.add_change({}, now ? std::optional(0U) : std::nullopt,
                        [now](const standing_handlers& handlers) {
                            if (handlers.subscribers) {
                                handlers.subscribers(now);
                            }
                        });
    }
}

void fake_bus::core::set_subscribers(const std::string& name, std::size_t count) {
    const guard locked(lock_);
    subscribers_[name] = count;
    for (const auto& each : active()) {
        follow_subscribers(*each);
    }
}

void fake_bus::core::answer_notification(const std::string& name, const std::string& method,
                                         std::vector<outcome> answers) {
    const guard locked(lock_);
    answers_[{name, method}] = std::move(answers);
}

/// What the subscribers answer; `all` is whether none of them keeps the notification waiting. As on
/// a bus, one that sends nothing is not among them.
std::vector<bus::notify_answer> fake_bus::core::answers_to(const notification& sent,
                                                           bool& all) const {
    std::vector<notify_answer> arrived;
    all = true;
    const auto scripted = answers_.find({sent.name, sent.method});
    if (scripted == answers_.end()) {
        const auto count = subscribers_.find(sent.name);
        arrived.resize(count != subscribers_.end() ? count->second : 0, {{}, error::msg::success});
        return arrived;
    }
    for (const outcome& each : scripted->second) {
        notify_answer answer{
            {}, each.never ? make_error_code(error::msg::timeout) : transferred(each.status)};
        for (const auto& reply : each.replies) {
            answer.replies.emplace_back(
                transferred_for_test(reply, "an answer to " + sent.name + '.' + sent.method));
        }
        all = all && !each.never;
        if (!each.never || !answer.replies.empty()) {
            arrived.push_back(std::move(answer));
        }
    }
    return arrived;
}

utils::link fake_bus::core::notify(notification sent, const answers_handler& handler) {
    const guard locked(lock_);
    notified_.push_back(sent);
    std::error_code code = error::msg::success;
    try {
        transferred(sent.data);
    } catch (const std::exception&) {
        code = error::msg::parse_error;
    }
    if (!code) {
        code = has_nul(sent.method)         ? make_error_code(error::msg::invalid_argument)
               : !connected_                ? make_error_code(error::msg::connection_failed)
               : own_.count(sent.name) == 0 ? make_error_code(error::msg::not_found)
                                            : make_error_code(error::msg::success);
    }
    bool all = true;
    std::vector<notify_answer> answers;
    if (!code && sent.limit) {
        answers = answers_to(sent, all);
    }
    const auto operation =
        start_locked([handler, answers = std::move(answers)](const std::error_code& outcome) {
            if (handler) {
                const bool is_complete = !outcome || outcome == error::msg::timeout;
                handler(is_complete ? answers : std::vector<notify_answer>(), outcome);
            }
        });
    if (all) {
        end_locked(operation, code);
    } else {
        limit_locked(operation, *sent.limit);
        asked_.push_back(operation);
    }
    return aggregate_adapter<utils::link>(operation);
}

// --- the monitor ---

void fake_bus::core::pass(const message& passed) {
    const auto shared = std::make_shared<const message>(passed);
    const guard locked(lock_);
    for (const auto& each : in_place(kind::monitor)) {
        each->add_limited([shared](const standing_handlers& handlers) {
            if (handlers.message) {
                handlers.message(*shared);
            }
        });
    }
}

} // namespace tarn::testing
