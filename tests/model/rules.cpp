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

bool cancelled(sequence& s, moment until) {
    return any(s, [until](const model_operation& op) {
        return op.planned.what == act::cancel && (until == 0 || op.began < until);
    });
}

bool removed(sequence& s, int name, moment until) {
    return any(s, [name, until](const model_operation& op) {
        return op.planned.what == act::del && op.planned.name == name &&
               (until == 0 || op.began < until);
    });
}

/// Whether it was called while cancel() ran somewhere.
bool met_cancel(sequence& s, const model_operation& op) {
    return any(s, [&op](const model_operation& other) {
        return other.planned.what == act::cancel && other.began < end_of(op) &&
               op.began < end_of(other);
    });
}

bool has_limit(const model_operation& op) {
    return op.planned.limit != 0 && op.planned.limit != far_limit;
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
        return !met_cancel(s, op);
    case act::invoke:
    case act::invoke_each:
        if (has_limit(op)) {
            return true;
        }
        return op.planned.name < 0 ? op.planned.method != 4 || op.planned.unknown
                                   : !removed(s, op.planned.name, 0);
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

namespace {

operations reconnecting(sequence& s) {
    operations found =
        those(s, [](const model_operation& op) { return op.planned.what == act::auto_connect; });
    found.erase(std::remove_if(found.begin(), found.end(),
                               [](model_operation* op) { return !op->handle().active(); }),
                found.end());
    return found;
}

} // namespace

bool reconnects(sequence& s) {
    const operations on = reconnecting(s);
    return std::any_of(on.begin(), on.end(), [&s](auto* op) { return !met_cancel(s, *op); });
}

bool may_reconnect(sequence& s) {
    return !reconnecting(s).empty();
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
            std::any_of(driving.begin(), driving.end(),
                        [op](const model_operation* other) { return other->began > end_of(*op); });
        if (!followed) {
            (connects(*op) ? may_connect : may_not) = true;
            // The result that is being told may be that of an attempt which is torn down right
            // after: this one then ends with it, aborted.
            may_not = may_not || op->met_connect_handler;
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
        const bool overtaken = p.what == act::disconnect
                                   ? any(s,
                                         [&](const model_operation& other) {
                                             return connects(other) && other.began < then;
                                         })
                               : p.what == act::connect ? connection_ended(s, then)
                                                        : cancelled(s, then);
        return overtaken ? "" : wrong + "and nothing has overtaken it";
    }
    if (code == error::msg::connection_failed) {
        const bool withdrawn = p.what == act::add && removed(s, p.name, then);
        return p.what != act::connect && p.what != act::disconnect &&
                       (unconnected || withdrawn || op.is_send)
                   ? ""
                   : wrong + "and the connection has not ended";
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
    default:
        if (s.seen().losses != 0) {
            allowed.insert(error::msg::no_response);
        }
        break;
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

/// A name, by the calls. One is doomed when it is withdrawn before it has reached the bus: then its
/// addition may be told that the connection failed, and its removal that there is no such object.
enum class name_state { free, served, doomed };

/// What the name is after the change if its outcome is what was told; nothing if it cannot be.
std::vector<name_state> after(const change& c, name_state before) {
    const bool told = c.outcome.has_value();
    const bool success = told && !*c.outcome;
    if (c.adds) {
        if (before != name_state::free) {
            return !told || *c.outcome == error::msg::invalid_argument
                       ? std::vector<name_state>{before}
                       : std::vector<name_state>{};
        }
        if (!told) {
            return {name_state::served, name_state::doomed};
        }
        if (success) {
            return {name_state::served};
        }
        return *c.outcome == error::msg::connection_failed
                   ? std::vector<name_state>{name_state::doomed}
                   : std::vector<name_state>{};
    }
    const bool allowed =
        !told || (success ? before != name_state::free
                          : before != name_state::served && *c.outcome == error::msg::not_found);
    return allowed ? std::vector<name_state>{name_state::free} : std::vector<name_state>{};
}

/// Whether the changes in `left` can follow each other so that the name ends as it did.
bool explained(const std::vector<change>& changes, unsigned left, name_state now, name_state last) {
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
        for (const name_state then : after(next, now)) {
            if (explained(changes, left & ~(1U << i), then, last)) {
                return true;
            }
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
    if (changes.size() > 20 || explained(changes, (1U << changes.size()) - 1, name_state::free,
                                         served ? name_state::served : name_state::free)) {
        return {};
    }
    return std::string("no order of what was done explains that ") +
           own_names.at(static_cast<std::size_t>(name)) + " is " + (served ? "served" : "free") +
           " at the end:" + told_of;
}

bool may_stay_unanswered(sequence& s, const sequence::peer_call& call) {
    return connection_ended(s, 0) || s.planned().restarts_daemon ||
           removed(s, call.planned.name, 0);
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
