/// What the model allows.
#include "rules.h"

#include "tarn/error.h"

#include <algorithm>
#include <limits>
#include <set>
#include <vector>

namespace tarn::test::rules {

namespace {

using act = step::act;
using operations = std::vector<model_operation*>;

bool drives(const model_operation& op) {
    return op.planned.what <= act::cancel;
}

bool connects(const model_operation& op) {
    return op.planned.what == act::connect || op.planned.what == act::auto_connect;
}

operations those(sequence& s, const std::function<bool(const model_operation&)>& wanted) {
    operations found;
    for (model_operation* const op : s.begun()) {
        if (wanted(*op)) {
            found.push_back(op);
        }
    }
    return found;
}

bool any(sequence& s, const std::function<bool(const model_operation&)>& wanted) {
    return !those(s, wanted).empty();
}

/// What a handler of cancel() asks for waits for the next outcome, and changes nothing; unless
/// another cancel() has ended that one before. Automatic reconnection does not wait.
bool may_wait(const model_operation& op) {
    return op.in_cancel && (op.planned.what == act::connect || op.planned.what == act::disconnect ||
                            (op.planned.what == act::auto_connect && op.planned.silent));
}

moment end_of(const model_operation& op) {
    return op.returned != 0 ? op.returned.load() : std::numeric_limits<moment>::max();
}

/// Whether something that ends connections came before `until`; 0: ever.
bool connection_ended(sequence& s, moment until) {
    return s.seen().losses != 0 || any(s, [until](const model_operation& op) {
               return (op.planned.what == act::disconnect || op.planned.what == act::cancel) &&
                      (until == 0 || op.began < until);
           });
}

bool removed(sequence& s, int name) {
    return any(s, [name](const model_operation& op) {
        return op.planned.what == act::del && op.planned.name == name;
    });
}

/// Whether one of those took effect after `op` had been called, and before it ended.
bool overtaken(sequence& s, const model_operation& op,
               const std::function<bool(const model_operation&)>& by) {
    return any(s, [&](const model_operation& other) {
        return &other != &op && by(other) && other.began < op.reported && end_of(other) > op.began;
    });
}

bool has_limit(const model_operation& op) {
    return op.planned.limit != 0 && op.planned.limit != far_limit;
}

/// Whether a wait for objects has ended before all of them can have been there.
bool too_early(sequence& s, const model_operation& op) {
    constexpr unsigned both = 3;
    constexpr unsigned last = 1U << (foreign_names.size() - 1);
    const bool before = s.published_all() == 0 || op.reported < s.published_all();
    return before && ((op.planned.paths & last) != 0 ||
                      (s.planned().exclusive && (op.planned.paths & both) == both));
}

} // namespace

bool unheard(const model_operation& op) {
    return op.is_reported() && op.runs == 0 && !op.released && !op.threw;
}

bool must_end(sequence& s, const model_operation& op) {
    switch (op.planned.what) {
    case act::connect:
    case act::auto_connect:
    case act::disconnect:
        return !may_wait(op);
    case act::invoke:
    case act::invoke_each:
        if (has_limit(op)) {
            return true;
        }
        return op.planned.name < 0 ? op.planned.method != 4 || op.planned.unknown
                                   : !removed(s, op.planned.name);
    case act::await_objects:
        return has_limit(op);
    case act::ask:
        // What a subscriber has not answered when it leaves stays unanswered.
        return has_limit(op) || (op.planned.method != 2 && s.seen().unsubscriptions == 0 &&
                                 !s.planned().restarts_daemon);
    default:
        return !op.is_send || !connection_ended(s, 0);
    }
}

std::string still_under_way(sequence& s) {
    std::string text;
    for (const model_operation* const op : s.begun()) {
        if (unheard(*op) && must_end(s, *op)) {
            text += "\n    not told: " + op->name;
        }
    }
    return text;
}

bool reconnects(sequence& s) {
    return any(s, [](const model_operation& op) {
        return op.planned.what == act::auto_connect && op.active();
    });
}

std::string judge_state(sequence& s, client::state last) {
    const operations driving = those(s, drives);
    const bool connected = last == client::state::connected;
    if (reconnects(s) && !connected) {
        return "automatic reconnection is on, and the state is not connected";
    }
    for (model_operation* const op : driving) {
        const bool switched_off =
            std::any_of(driving.begin(), driving.end(), [op](const model_operation* other) {
                return other != op && end_of(*other) > op->began;
            });
        const auto& delays = op->planned.delays;
        const auto calls = static_cast<std::size_t>(op->calls.load());
        const bool gave_up = calls > delays.size() ||
                             std::find(delays.begin(), delays.begin() + static_cast<long>(calls),
                                       0) != delays.begin() + static_cast<long>(calls);
        if (op->planned.what == act::auto_connect && !op->planned.silent && !op->released &&
            !op->threw && !switched_off && !gave_up && !op->handle().active()) {
            return op->name + ": its link has ended and nothing has ended it";
        }
    }
    if (s.seen().losses != 0 || any(s, [](const model_operation& op) { return op.threw.load(); })) {
        return {};
    }
    // Those that nothing has followed.
    bool may_connect = false;
    bool may_not = driving.empty();
    for (const model_operation* const op : driving) {
        const bool followed =
            std::any_of(driving.begin(), driving.end(), [op](const model_operation* other) {
                return other->began > end_of(*op) && !may_wait(*other);
            });
        if (!followed) {
            (connects(*op) ? may_connect : may_not) = true;
        }
    }
    if (connected && !may_connect) {
        return "the state is connected after what ends connections";
    }
    if (!connected && !may_not) {
        return "the state is disconnected after what connects";
    }
    return {};
}

std::string judge_outcome(sequence& s, model_operation& op) {
    if (!op.is_reported()) {
        return {};
    }
    const std::string wrong = op.name + ": told " + told(op.outcome()) + ", ";
    if (op.runs == 0) {
        const bool excused = op.released || op.threw || s.seen().throws != 0 ||
                             (op.is_send && connection_ended(s, 0));
        return excused ? "" : op.name + ": never told anything";
    }
    const step& p = op.planned;
    const std::error_code code = op.outcome();
    const moment then = op.reported;
    const bool unconnected = !s.planned().starts_connected || connection_ended(s, then);
    if (code == error::generic::aborted) {
        const auto ends = [&p](const model_operation& other) {
            return other.planned.what == act::cancel ||
                   (p.what == act::connect && other.planned.what == act::disconnect);
        };
        const bool allowed =
            p.what == act::disconnect
                ? op.in_outcome || overtaken(s, op, connects)
                : overtaken(s, op, ends) || (p.what == act::connect && op.in_outcome);
        return allowed ? "" : wrong + "and nothing has overtaken it";
    }
    if (code == error::msg::connection_failed) {
        return p.what != act::connect && p.what != act::disconnect &&
                       p.what != act::await_objects && (unconnected || op.is_send)
                   ? ""
                   : wrong + "and the connection has not ended";
    }
    const bool drives_alone = !op.in_outcome && s.seen().losses == 0 && !overtaken(s, op, drives);
    const auto wanted =
        p.what == act::connect ? client::state::connected : client::state::disconnected;
    if (drives(op) && drives_alone && op.state_then != wanted) {
        return wrong + "in state " + std::to_string(static_cast<int>(op.state_then.load()));
    }
    std::set<std::error_code> allowed{error::msg::success};
    switch (p.what) {
    case act::connect:
        if (s.seen().losses != 0) {
            allowed.insert(error::generic::unknown_error);
        }
        allowed.insert(std::error_code());
        break;
    case act::disconnect:
        allowed.insert(std::error_code());
        break;
    case act::add:
        if (any(s, [&](const model_operation& other) {
                return &other != &op && other.planned.what == act::add &&
                       other.planned.name == p.name && other.began < then;
            })) {
            allowed.insert(error::msg::invalid_argument);
        }
        break;
    case act::del:
        allowed.insert(error::msg::not_found);
        break;
    case act::invoke:
    case act::invoke_each:
        if (p.unknown) {
            allowed = {error::msg::not_found};
        } else if (p.name >= 0) {
            allowed.insert(error::msg::not_found);
            if (p.method == 3) {
                allowed.erase(error::msg::success);
                allowed.insert(error::msg::permission_denied);
            }
            if (s.seen().throws != 0) {
                // Of a handler that threw before it answered, or one that was dropped.
                allowed.insert(error::msg::success);
                allowed.insert(error::msg::unknown_error);
            }
        } else if (p.method == 3) {
            allowed = {error::msg::permission_denied};
        } else if (p.method == 4) {
            allowed.clear();
        } else if (p.method == 5) {
            allowed = {error::msg::method_not_found};
        }
        if (p.name < 0 && s.planned().restarts_daemon) {
            allowed.insert(error::msg::not_found);
        }
        if (has_limit(op)) {
            allowed.insert(error::msg::timeout);
        }
        break;
    case act::send_event:
    case act::objects:
        break;
    case act::await_objects:
        if (!code && too_early(s, op)) {
            return wrong + "and what it waits for has not been there";
        }
        if (has_limit(op)) {
            allowed.insert(error::msg::timeout);
        }
        break;
    case act::notify:
    case act::ask:
        allowed.insert(error::msg::not_found);
        if (p.what == act::ask && has_limit(op)) {
            allowed.insert(error::msg::timeout);
        }
        break;
    default:
        if (s.seen().losses != 0) {
            allowed.insert(error::msg::no_response);
        }
        break;
    }
    if (p.what >= act::send_event && allowed.count(error::msg::success) != 0) {
        allowed.insert(std::error_code()); // what tarn::bus finds without asking the daemon
    }
    return allowed.count(code) != 0 ? "" : wrong + "which it cannot be";
}

namespace {

/// An addition or a removal: between its moments it took effect at once, if at all.
struct change {
    bool adds;
    moment began;
    moment returned;
    std::optional<std::error_code> outcome; ///< nothing: nobody was told
};

/// What becomes of the name with the change, if its outcome is what was told; nothing if it cannot
/// be.
std::optional<bool> served_after(const change& c, bool served) {
    const bool possible =
        !c.outcome || (!*c.outcome ? served != c.adds
                       : c.adds    ? served && *c.outcome == error::msg::invalid_argument
                                   : !served && *c.outcome == error::msg::not_found);
    return possible ? std::optional<bool>(c.adds) : std::nullopt;
}

/// Whether the changes in `left` can follow each other so that the name ends as it did.
bool explained(const std::vector<change>& changes, unsigned left, bool now, bool last) {
    if (left == 0) {
        return now == last;
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const change& next = changes[i];
        bool first = (left & (1U << i)) != 0;
        for (std::size_t j = 0; j < changes.size() && first; ++j) {
            first = (left & (1U << j)) == 0 || changes[j].returned >= next.began;
        }
        if (!first) {
            continue;
        }
        const auto then = served_after(next, now);
        if (then && explained(changes, left & ~(1U << i), *then, last)) {
            return true;
        }
    }
    return false;
}

} // namespace

std::string judge_name(sequence& s, int name, bool served) {
    // The connection that the sequence begins with is the only thing that drives.
    if (!s.planned().starts_connected || s.seen().losses != 0 || those(s, drives).size() != 1) {
        return {};
    }
    std::vector<change> changes;
    std::string told_of;
    for (model_operation* const op : s.begun()) {
        const act what = op->planned.what;
        if (op->planned.name != name || (what != act::add && what != act::del)) {
            continue;
        }
        change c{what == act::add, op->began, end_of(*op), {}};
        if (op->runs != 0) {
            c.outcome = op->outcome();
        }
        changes.push_back(c);
        told_of += "\n    [" + std::to_string(c.began) + ", " + std::to_string(c.returned) + "] " +
                   op->name + ": " + (op->runs != 0 ? told(op->outcome()) : "not told");
    }
    if (changes.size() > 20 || explained(changes, (1U << changes.size()) - 1, false, served)) {
        return {};
    }
    return std::string("no order of what was done explains that ") +
           own_names.at(static_cast<std::size_t>(name)) + " is " + (served ? "served" : "free") +
           " at the end:" + told_of;
}

bool may_stay_unanswered(sequence& s, const sequence::peer_call& call) {
    return connection_ended(s, 0) || s.planned().restarts_daemon || removed(s, call.planned.name);
}

std::string judge_peer_call(sequence& s, const sequence::peer_call& call,
                            const peer_process::answer& got) {
    const std::string what =
        "the other process's call of " +
        std::string(own_names.at(static_cast<std::size_t>(call.planned.name))) + " was answered " +
        std::to_string(got.status);
    const bool refused = call.planned.method == 3;
    const bool allowed = got.status == 4 || (got.status == 6 && refused) ||
                         (got.status == 0 && (!refused || s.seen().throws != 0)) ||
                         (got.status == 9 && s.seen().throws != 0);
    if (!allowed) {
        return what;
    }
    for (const model_operation* const op : s.begun()) {
        if (op->planned.id == got.token &&
            (op->planned.what != act::add || op->planned.name != call.planned.name)) {
            return what + " by #" + std::to_string(got.token);
        }
    }
    return {};
}

} // namespace tarn::test::rules
