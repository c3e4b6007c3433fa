/// Plays sequences and judges them.
#include "model.h"

#include "delays.h"
#include "journal.h"
#include "rules.h"
#include "sequence.h"

#include "tarn/error.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace tarn::test {

namespace {

using act = step::act;

/// A daemon is killed in one of so many sequences.
constexpr unsigned restart_every = 500;

step simple(act what) {
    step s;
    s.what = what;
    return s;
}

step about(act what, int name) {
    step s;
    s.what = what;
    s.name = name;
    return s;
}

} // namespace

model::model(std::chrono::seconds limit)
    : limit_(limit) {
    journal::print_at_crash();
}

model::~model() = default;

std::optional<std::string> model::play(std::uint64_t seed) {
    const plan p = make_plan(seed, seed % restart_every == 0);
    journal::begin("\nsequence " + std::to_string(seed) +
                   ", to be run again by\n    ./dev model 1 " + std::to_string(seed) + "\n" +
                   text_of(p) + "what happened:\n");
    world_.result().reset();
    auto s = std::make_unique<sequence>(world_, p);
    set_delays(seed, p.handovers, p.locks);
    const bool well = play(*s) && !world_.result().failed();
    set_delays(seed, 0, 0);
    if (well) {
        count(*s);
        return {};
    }
    const std::string where = s->whereabouts();
    world_.abandon();
    // Somebody may still refer to it.
    (void)s.release();
    return journal::text() + "WRONG in sequence " + std::to_string(seed) + ": " +
           world_.result().text() + where + "\n";
}

bool model::play(sequence& s) {
    const auto fine = [this] {
        return !world_.result().failed();
    };
    if (!begin(s)) {
        return false;
    }
    s.start_threads();
    if (s.planned().restarts_daemon && !disturb_daemon(s)) {
        return false;
    }
    if (!s.finish_threads(limit_)) {
        world_.result().fail("a thread does not come back");
        return false;
    }
    return fine() && settle(s) && fine() && judge_names(s) && judge_standing(s) && reconnect(s) &&
           judge_standing(s) && end_everything(s) && judge_absence(s) && use_anew(s) &&
           judge_outcomes(s) && fine();
}

bool model::await(sequence& s, const std::function<bool()>& done, const std::string& what) {
    const bool came =
        world_.loop().wait_until([&] { return world_.result().failed() || done(); }, limit_);
    if (!came) {
        world_.result().fail(what + rules::still_under_way(s));
    }
    return came && !world_.result().failed();
}

model_operation& model::drive(sequence& s, const step& wanted) {
    if (s.planned().drives_from_here) {
        return s.start(wanted);
    }
    std::atomic<model_operation*> op{nullptr};
    world_.loop().post([&] { op = &s.start(wanted); });
    world_.loop().wait_until([&op] { return op != nullptr; }, std::chrono::hours(1));
    return *op;
}

bool model::expect(sequence& s, const step& wanted, const std::error_code& code) {
    model_operation& op = drive(s, wanted);
    if (!await(
            s, [&op] { return op.runs != 0; }, op.name + " is not told how it ended")) {
        return false;
    }
    // A default code is another success than the bus's.
    if (op.outcome() != code && (op.outcome() || code)) {
        world_.result().fail(op.name + ": told " + told(op.outcome()) + " instead of " +
                             told(code));
    }
    return !world_.result().failed();
}

bool model::begin(sequence& s) {
    s.set_peer_mode(s.planned().exclusive, s.planned().eager);
    s.watch_states();
    return !s.planned().starts_connected || expect(s, simple(act::connect), {});
}

bool model::disturb_daemon(sequence& s) {
    ++s.seen().losses;
    journal::note("the daemon is killed");
    world_.restart_daemon();
    world_.renew_peer();
    journal::note("the daemon runs again");
    return true;
}

bool model::settle(sequence& s) {
    const auto peer_is_answered = [&] {
        const auto calls = s.peer_calls();
        return std::all_of(calls.begin(), calls.end(), [&](const auto& call) {
            return rules::may_stay_unanswered(s, call) ||
                   world_.peer().find_answer(call.number).has_value();
        });
    };
    moment last = 0;
    auto quiet_since = std::chrono::steady_clock::now();
    const auto at_rest = [&] {
        s.drop_kept();
        // A handler that was dropped, since another threw, will not come: then it is quiet. But a
        // served call is answered even so, however slow the other process is.
        const moment now = s.now();
        if (now != last + 1) {
            quiet_since = std::chrono::steady_clock::now();
        }
        last = now;
        const bool may_be_dropped =
            s.seen().throws != 0 &&
            std::chrono::steady_clock::now() - quiet_since > std::chrono::milliseconds(30);
        // Nothing has begun or ended while it was looked at.
        return !s.busy() && (may_be_dropped || rules::still_under_way(s).empty()) &&
               peer_is_answered() && !s.busy() && s.latest() == now;
    };
    // What comes after the plan's end, calls that need not be answered for instance, begins nothing
    // any more.
    for (int i = 0; i < 2; ++i) {
        world_.refuse_bus(false);
        if (!await(s, at_rest, "it does not come to rest")) {
            return false;
        }
        s.end_plan();
    }
    for (const auto& call : s.peer_calls()) {
        const auto got = world_.peer().find_answer(call.number);
        const std::string wrong = got ? rules::judge_peer_call(s, call, *got)
                                  : rules::may_stay_unanswered(s, call)
                                      ? ""
                                      : "a call by the other process is never answered";
        if (!wrong.empty()) {
            world_.result().fail(wrong);
            return false;
        }
    }
    if (!settle_state(s)) {
        return false;
    }
    std::atomic<bool> checked{false};
    world_.loop().post([&] {
        s.check_subscribers();
        checked = true;
    });
    return world_.loop().wait_until([&checked] { return checked.load(); }, std::chrono::hours(1)) &&
           !world_.result().failed();
}

bool model::settle_state(sequence& s) {
    const auto end = std::chrono::steady_clock::now() + limit_;
    for (;;) {
        const auto stable = [&] {
            const auto state = world_.bus().get_state();
            return state == client::state::connected ||
                   (state == client::state::disconnected && !rules::reconnects(s));
        };
        if (!await(s, stable,
                   "the state stays " + std::to_string(static_cast<int>(world_.bus().get_state())) +
                       (rules::reconnects(s) ? ", automatic reconnection being on" : ""))) {
            return false;
        }
        // What has been lost may not be known yet.
        const auto state = world_.bus().get_state();
        step call = simple(act::invoke);
        call.method = 0;
        model_operation& op = drive(s, call);
        if (!await(
                s, [&op] { return op.runs != 0; }, "a call at the end is not answered")) {
            return false;
        }
        const bool works = !op.outcome();
        if (works == (state == client::state::connected) && state == world_.bus().get_state()) {
            return true;
        }
        if (s.seen().losses == 0 || std::chrono::steady_clock::now() > end) {
            world_.result().fail("in state " + std::to_string(static_cast<int>(state)) +
                                 " a call is told " + told(op.outcome()));
            return false;
        }
        world_.loop().wait_until([&] { return world_.bus().get_state() != state; },
                                 std::chrono::milliseconds(2));
    }
}

bool model::answered_by(sequence& s, int name, int token) {
    const std::string path = own_names.at(static_cast<std::size_t>(name));
    const int number = world_.peer().start("call", path + " answer");
    const auto answer = world_.peer().wait_for_answer(number, limit_);
    if (!answer || answer->status != 0 || (token != 0 && answer->token != token)) {
        world_.result().fail(path + " is taken, and the other process's call of it is " +
                             (answer ? "answered " + std::to_string(answer->status) + " by #" +
                                           std::to_string(answer->token)
                                     : std::string("not answered")));
        return false;
    }
    return expect(s, about(act::invoke, name), {});
}

bool model::judge_names(sequence& s) {
    const std::string wrong = rules::judge_state(s, world_.bus().get_state());
    if (!wrong.empty()) {
        world_.result().fail(wrong);
        return false;
    }
    if (world_.bus().get_state() != client::state::connected) {
        return true;
    }
    for (int name = 0; name < static_cast<int>(own_names.size()); ++name) {
        if (!judge_name(s, name)) {
            return false;
        }
    }
    return true;
}

// Every name is served or free. What is asked here is part of the history that is judged.
bool model::judge_name(sequence& s, int name) {
    const auto begun = s.begun();
    const bool touched = std::any_of(begun.begin(), begun.end(), [name](const auto* op) {
        return op->planned.name == name &&
               (op->planned.what == act::add || op->planned.what == act::del);
    });
    if (!touched) {
        return true;
    }
    model_operation& probe = drive(s, about(act::add, name));
    if (!await(
            s, [&probe] { return probe.runs != 0; }, probe.name + " is not told how it ended")) {
        return false;
    }
    const bool served = probe.outcome() == error::msg::invalid_argument;
    if (!served && probe.outcome()) {
        world_.result().fail(probe.name + ": told " + told(probe.outcome()));
        return false;
    }
    if (!answered_by(s, name, served ? 0 : probe.planned.id) ||
        !expect(s, about(act::del, name), {})) {
        return false;
    }
    if (served && !(expect(s, about(act::add, name), {}) && expect(s, about(act::del, name), {}))) {
        return false;
    }
    const std::string wrong = rules::judge_name(s, name, false);
    if (!wrong.empty()) {
        world_.result().fail(wrong);
    }
    return wrong.empty();
}

/// What a disconnection, or cancel(), should have ended and has not.
std::string model::left_over(sequence& s, bool cancelled) {
    std::string text;
    for (model_operation* const op : s.begun()) {
        if (op->planned.what == act::await_objects && !cancelled) {
            continue;
        }
        if (rules::unheard(*op) && s.seen().throws == 0 && !op->is_send) {
            text += "\n    not told: " + op->name;
        }
        if (op->handle().active() && op->planned.what != act::subscribe &&
            !op->planned.is_standing()) {
            text += "\n    its link is active: " + op->name;
        }
    }
    return text;
}

// Automatic reconnection that has come through losses comes through one more. (In the others a loss
// would excuse too much.)
bool model::reconnect(sequence& s) {
    if (s.seen().losses == 0 || !rules::reconnects(s)) {
        return true;
    }
    journal::note("the bus ends the connection once more");
    const int before = s.successes();
    world_.drop_bus();
    return await(
        s,
        [&] {
            return s.successes() != before ||
                   (!rules::reconnects(s) &&
                    world_.bus().get_state() == client::state::disconnected);
        },
        "it does not connect again");
}

// By a disconnection or by cancel().
bool model::end_everything(sequence& s) {
    if (!s.planned().cancels_at_end) {
        if (!expect(s, simple(act::disconnect), {}) || !settle(s)) {
            return false;
        }
        const auto begun = s.begun();
        const bool well =
            s.seen().throws != 0 ||
            std::all_of(begun.begin(), begun.end(), [&s](model_operation* op) {
                return !op->handle().active() || op->planned.what == act::subscribe ||
                       op->planned.is_standing() || op->planned.what == act::await_objects ||
                       (op->planned.what <= act::disconnect && !rules::must_end(s, *op));
            });
        const std::string left = left_over(s, false);
        if (!well) {
            world_.result().fail("a disconnection has left" + left);
            return false;
        }
        if (left.empty()) {
            return is_disconnected();
        }
    }
    model_operation& op = drive(s, simple(act::cancel));
    // It has ended everything before it returned.
    const std::string left = left_over(s, true);
    if (!left.empty()) {
        world_.result().fail(op.name + " has returned and left" + left);
        return false;
    }
    return is_disconnected();
}

bool model::is_disconnected() {
    const auto state = world_.bus().get_state();
    if (state != client::state::disconnected) {
        world_.result().fail("the state is " + std::to_string(static_cast<int>(state)) +
                             " after all has been ended");
    }
    return !world_.result().failed();
}

// A new connection works, and ends without a trace.
bool model::use_anew(sequence& s) {
    for (model_operation* const op : s.begun()) {
        if (op->planned.what == act::subscribe) {
            op->handle().release();
        }
    }
    const int name = static_cast<int>(s.planned().seed % own_names.size());
    if (!expect(s, simple(act::connect), {}) || !expect(s, simple(act::invoke), {}) ||
        !judge_standing(s) || !judge_sent(s)) {
        return false;
    }
    release_standing(s);
    model_operation& object = drive(s, about(act::add, name));
    if (!await(
            s, [&object] { return object.runs != 0; }, object.name + " is not told")) {
        return false;
    }
    if (object.outcome()) {
        world_.result().fail("on a new connection, " + object.name + " is told " +
                             told(object.outcome()));
        return false;
    }
    if (!answered_by(s, name, object.planned.id) || !expect(s, about(act::del, name), {}) ||
        !expect(s, simple(act::disconnect), {})) {
        return false;
    }
    if (!world_.peer().reset()) {
        world_.result().fail("the other process does not react");
        return false;
    }
    const auto begun = s.begun();
    const auto all_gone = [&begun] {
        return std::all_of(begun.begin(), begun.end(),
                           [](const auto* op) { return op->alive == 0; });
    };
    if (!world_.loop().wait_until(all_gone, limit_)) {
        std::string held;
        for (const auto* op : begun) {
            held += op->alive != 0 ? "\n    " + op->name : "";
        }
        world_.result().fail("handlers are still held:" + held);
        return false;
    }
    return judge_stats() && is_disconnected();
}

bool model::judge_outcomes(sequence& s) {
    for (model_operation* const op : s.begun()) {
        std::string wrong = rules::judge_outcome(s, *op);
        if (wrong.empty() && op->handle().active()) {
            wrong = op->name + ": its link is active at the end";
        }
        if (!wrong.empty()) {
            world_.result().fail(wrong);
            return false;
        }
    }
    return true;
}

void model::count(sequence& s) {
    constexpr std::array<const char*, 19> kinds{
        "connect", "auto_connect", "disconnect", "cancel",         "invoke",   "invoke_each", "add",
        "del",     "subscribe",    "send_event", "objects",        "wait_for", "notify",      "ask",
        "listen",  "on_object",    "follow",     "on_subscribers", "monitor"};
    ++sequences_;
    throws_ += s.seen().throws;
    losses_ += s.seen().losses;
    for (model_operation* const op : s.begun()) {
        ++operations_;
        const auto kind = static_cast<std::size_t>(op->planned.what);
        auto& counts = outcomes_[kind < kinds.size() ? kinds.at(kind) : "send"];
        ++counts[op->planned.is_standing() ? op->runs == 0 ? "not called" : "called"
                 : !op->is_reported()      ? "no report"
                 : op->runs == 0           ? "not told"
                                           : told(op->outcome())];
    }
}

void model::print_counts(std::ostream& out) const {
    out << sequences_ << " sequences, " << operations_ << " operations, " << throws_
        << " handlers that threw, " << losses_ << " losses of the bus\n";
    for (const auto& [kind, counts] : outcomes_) {
        out << "  " << kind << ":";
        for (const auto& [outcome, number] : counts) {
            out << "  " << outcome << " " << number;
        }
        out << '\n';
    }
}

} // namespace tarn::test
