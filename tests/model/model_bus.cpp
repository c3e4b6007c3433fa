/// What must hold of tarn::bus when a sequence has come to rest: asked of the bus and of the other
/// process, and compared with what the handlers have been told.
#include "journal.h"
#include "model.h"
#include "sequence.h"

#include "tarn/error.h"

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

namespace tarn::test {

namespace {

using act = step::act;

/// libubus awaits no more of them.
constexpr long most_answers = 16;

step about(act what, int name) {
    step s;
    s.what = what;
    s.name = name;
    return s;
}

/// The standing operations of a kind whose links have not been released, and for wait_for() those
/// that still wait.
std::vector<model_operation*> active(sequence& s, act what) {
    std::vector<model_operation*> found;
    for (model_operation* const op : s.begun()) {
        if (op->planned.what == what && op->active()) {
            found.push_back(op);
        }
    }
    return found;
}

bool all_of(const std::vector<model_operation*>& operations,
            const std::function<bool(const model_operation&)>& fits) {
    return std::all_of(operations.begin(), operations.end(), [&](const model_operation* op) {
        const std::lock_guard<std::mutex> guard(op->lock);
        return fits(*op);
    });
}

std::string names_of(const std::vector<model_operation*>& operations) {
    std::string text;
    for (const model_operation* const op : operations) {
        text += "\n    " + op->name;
    }
    return text;
}

} // namespace

/// Its number in the answer; nothing when the order fails.
std::optional<int> model::order_peer(const std::string& verb, const std::string& objects) {
    const int number = world_.order_peer(verb, objects);
    journal::note("order " + std::to_string(number) + ": " + verb + " " + objects);
    const auto answer = world_.peer().wait_for_answer(number, limit_);
    if (answer && answer->status == 0) {
        return answer->token;
    }
    world_.result().fail(
        "the other process's " + verb + " " + objects +
        (answer ? " ended with " + std::to_string(answer->status) : " does not end"));
    return {};
}

/// Everything that stands is in place while the client is connected.
bool model::judge_standing(sequence& s) {
    // Asked before anything that is sent now has it delivered.
    if (!await(
            s, [this] { return world_.bus().get_bus().stats().undelivered.now == 0; },
            "something stays undelivered")) {
        return false;
    }
    if (world_.bus().get_state() != client::state::connected) {
        return judge_absence(s);
    }
    return judge_waits(s) && judge_listeners(s) && judge_presence(s) && judge_subscriptions(s) &&
           judge_subscribers(s);
}

// All that they wait for is there now.
bool model::judge_waits(sequence& s) {
    if (active(s, act::await_objects).empty() && active(s, act::on_object).empty() &&
        active(s, act::follow).empty()) {
        return true;
    }
    s.publish_all();
    if (!order_peer("mode", "0 0")) {
        return false;
    }
    for (const std::string name : foreign_names) {
        if (!order_peer("publish", name)) {
            return false;
        }
    }
    return await(
        s, [&s] { return active(s, act::await_objects).empty(); },
        "they wait for what is there:" + names_of(active(s, act::await_objects)));
}

// An event that is sent now reaches each of them. That none comes twice is checked as they come.
bool model::judge_listeners(sequence& s) {
    const auto listeners = active(s, act::listen);
    const auto monitors = active(s, act::monitor);
    if (listeners.empty() && monitors.empty()) {
        return true;
    }
    long messages = 0;
    for (const model_operation* const op : monitors) {
        messages = std::max<long>(messages, op->messages);
    }
    for (const std::string id : event_ids) {
        const int number = world_.order_peer("event", id);
        const auto heard = [&](const model_operation& op) {
            return op.registered != 0 &&
                   (op.event >= number ||
                    !matches(event_patterns.at(static_cast<std::size_t>(op.planned.pattern)), id));
        };
        if (!await(
                s, [&] { return all_of(listeners, heard); },
                "event " + std::to_string(number) + " does not reach all of" +
                    names_of(listeners))) {
            return false;
        }
    }
    return await(
        s,
        [&] {
            return all_of(monitors, [&](const model_operation& op) {
                return op.registered == 0 || op.messages != 0;
            });
        },
        "a message does not reach all of" + names_of(monitors));
}

// What has been told of objects is what a look-up finds.
bool model::judge_presence(sequence& s) {
    const auto watches = active(s, act::on_object);
    if (watches.empty()) {
        return true;
    }
    step all;
    all.what = act::objects;
    all.pattern = 2;
    model_operation& look_up = drive(s, all);
    if (!await(
            s, [&look_up] { return look_up.runs != 0; }, "a look-up does not end")) {
        return false;
    }
    if (look_up.outcome()) {
        world_.result().fail("a look-up at the end is told " + told(look_up.outcome()));
        return false;
    }
    const auto agrees = [&](const model_operation& op) {
        std::map<std::uint32_t, std::string> expected;
        for (const auto& [id, path] : look_up.there) {
            if (matches(object_patterns.at(static_cast<std::size_t>(op.planned.pattern)), path)) {
                expected.emplace(id, path);
            }
        }
        return op.there == expected && op.registered != 0;
    };
    return await(
        s, [&] { return all_of(watches, agrees); },
        "what is there has not been told to all of" + names_of(watches));
}

// Every subscription is in place, and answers once.
bool model::judge_subscriptions(sequence& s) {
    const auto follows = active(s, act::follow);
    const auto foreign = [](const model_operation& op) {
        return op.planned.name < 0;
    };
    if (!await(
            s,
            [&] {
                return all_of(follows, [&](const model_operation& op) {
                    return op.subscribed == foreign(op) && op.registered != 0;
                });
            },
            "the objects are there, and not all are subscribed to them:" + names_of(follows))) {
        return false;
    }
    for (std::size_t i = 0; i < foreign_names.size(); ++i) {
        const long subscribed =
            std::count_if(follows.begin(), follows.end(), [&](const model_operation* op) {
                return foreign(*op) && op->planned.foreign == static_cast<int>(i);
            });
        if (subscribed == 0) {
            continue;
        }
        const int number = world_.order_peer("ask", foreign_names.at(i));
        std::optional<peer_process::answer> answer;
        if (!await(
                s,
                [&] {
                    s.drop_kept();
                    answer = world_.peer().find_answer(number);
                    return answer.has_value();
                },
                "order " + std::to_string(number) + ", what " + foreign_names.at(i) +
                    " asks its subscribers, is not answered")) {
            return false;
        }
        if (answer->token != std::min(subscribed, most_answers)) {
            world_.result().fail(std::string(foreign_names.at(i)) + " has " +
                                 std::to_string(subscribed) + " subscribers and gets " +
                                 std::to_string(answer->token) + " answers");
            return false;
        }
    }
    return true;
}

// Told true exactly while the other process is subscribed. The names are free by now.
bool model::judge_subscribers(sequence& s) {
    for (int name = 0; name < static_cast<int>(own_names.size()); ++name) {
        auto watches = active(s, act::on_subscribers);
        watches.erase(std::remove_if(watches.begin(), watches.end(),
                                     [name](const auto* op) { return op->planned.name != name; }),
                      watches.end());
        const auto told = [&](bool any) {
            return await(
                s,
                [&] {
                    return all_of(watches, [any](const model_operation& op) {
                        return op.has_subscribers == any;
                    });
                },
                std::string(own_names.at(static_cast<std::size_t>(name))) + " has " +
                    (any ? "subscribers" : "none") + ", and not all are told:" + names_of(watches));
        };
        const std::string path = own_names.at(static_cast<std::size_t>(name));
        // By turns the subscriber goes first, and the object.
        const bool unsubscribes = (s.planned().seed + static_cast<unsigned>(name)) % 2 == 0;
        if (!watches.empty() &&
            !(told(false) && expect(s, about(act::add, name), error::msg::success) &&
              order_peer("subscribe", path) && told(true) &&
              (!unsubscribes || (order_peer("unsubscribe", path) && told(false))) &&
              expect(s, about(act::del, name), error::msg::success) && told(false))) {
            return false;
        }
    }
    return true;
}

// Without a connection nothing is there.
bool model::judge_absence(sequence& s) {
    std::vector<model_operation*> standing;
    for (const act what : {act::on_object, act::follow, act::on_subscribers}) {
        const auto those = active(s, what);
        standing.insert(standing.end(), those.begin(), those.end());
    }
    return await(
        s,
        [&] {
            return all_of(standing, [](const model_operation& op) {
                return op.there.empty() && !op.subscribed && !op.has_subscribers;
            });
        },
        "there is no connection, and not all are told:" + names_of(standing));
}

// The other process has heard of an event once if sending it succeeded, and never twice.
bool model::judge_sent(sequence& s) {
    for (const model_operation* const op : s.begun()) {
        if (op->planned.what != act::send_event) {
            continue;
        }
        const bool succeeded = op->runs != 0 && !op->outcome();
        const auto heard = [&] {
            return world_.peer().times_heard(op->planned.id);
        };
        const bool due = succeeded && !s.planned().restarts_daemon;
        if (!await(
                s, [&] { return heard() >= (due ? 1 : 0); },
                op->name + ": the other process does not hear of it")) {
            return false;
        }
        if (heard() > 1) {
            world_.result().fail(op->name + ": the other process hears of it twice");
            return false;
        }
    }
    return true;
}

void model::release_standing(sequence& s) {
    for (model_operation* const op : s.begun()) {
        if (op->planned.is_standing()) {
            op->handle().release();
        }
    }
}

// Nothing is under way any more.
bool model::judge_stats() {
    const auto now = world_.bus().get_bus().stats();
    std::uint64_t ended = now.calls_given_up;
    for (const auto& [code, count] : now.calls_ended) {
        ended += count;
    }
    if (now.undelivered.now != 0 || now.calls_pending != 0 || now.calls_started != ended) {
        world_.result().fail("undelivered at the end: " + std::to_string(now.undelivered.now) +
                             ", calls: " + std::to_string(now.calls_started) + " started, " +
                             std::to_string(ended) + " ended, " +
                             std::to_string(now.calls_pending) + " pending");
    }
    return !world_.result().failed();
}

} // namespace tarn::test
