/// Makes what a sequence does from its seed.
#include "plan.h"

#include "chance.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

namespace tarn::test {

namespace {

using act = step::act;

constexpr int most_operations = 36;

/// How often each act is chosen, in the order of step::act.
using weights = std::array<unsigned, 37>;

constexpr std::array<weights, 5> weights_of{{
    // con aut dis can inv eac add del sub, sev obj awt ntf ask, lis pre fol sbs mon,
    // rel get ans pee dro ref all wai pau sta, pub wdr tog evt pnt pas psu pun
    {{20, 14, 20, 12, 5, 2, 3, 1,  10, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0,
      12, 2,  0,  1,  6, 6, 3, 10, 4,  0, 1, 1, 0, 1, 0, 0, 1, 0}}, // connection
    {{0, 0, 0, 0, 10, 1, 35, 30, 1, 0, 0, 0, 1, 1, 0, 1, 0, 1, 0,
      8, 1, 2, 8, 0,  0, 0,  8,  4, 0, 0, 0, 0, 0, 0, 0, 1, 1}}, // names
    {{3,  1, 2,  3,  30, 12, 6, 5,  1, 1, 1, 0, 1, 1, 0, 0, 0, 0, 0,
      18, 2, 10, 10, 3,  1,  1, 10, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0}}, // calls
    {{10, 6, 8, 7, 14, 5, 14, 9,  5, 3, 3, 4, 4, 4, 4, 4, 5, 3, 1,
      12, 2, 5, 5, 4,  2, 2,  10, 4, 1, 3, 2, 2, 5, 3, 4, 3, 2}}, // mixed
    {{5,  3, 3, 4, 3, 1, 8, 5, 1, 6, 7, 9, 8, 8,  12, 12, 14, 7, 1,
      14, 1, 6, 2, 3, 1, 1, 8, 4, 2, 9, 6, 6, 14, 9,  11, 8,  4}}, // bus
}};

class maker {
public:
    maker(plan& p, std::uint64_t seed)
        : plan_(p)
        , random_(seed) {}

    void make(bool may_restart);

private:
    std::vector<step> make_steps(unsigned count, int depth);
    step make_step(int depth);
    void choose_call(step& s);
    void choose_bus(step& s);
    int some_limit();
    void add_inside(std::vector<step>& inside, int depth);
    act choose();
    int some_operation();
    bool cancels() const {
        return weights_.at(static_cast<std::size_t>(act::cancel)) != 0 &&
               plan_.operations < most_operations;
    }

    plan& plan_;
    chance random_;
    weights weights_{};
    bool throws_ = false;
};

void maker::make(bool may_restart) {
    // The bus, which has the most kinds of operations, more often than the others.
    plan_.about = static_cast<theme>(std::min(random_.below(7), 4U));
    weights_ = weights_of.at(static_cast<std::size_t>(plan_.about));
    const auto leave_out = [this](std::initializer_list<act> acts) {
        for (const act a : acts) {
            weights_.at(static_cast<std::size_t>(a)) = 0;
        }
    };
    if (random_.percent(50)) {
        leave_out({act::drop_bus, act::refuse_bus, act::allow_bus});
    }
    if (random_.percent(50)) {
        leave_out({act::cancel});
    }
    throws_ = random_.percent(25);
    plan_.starts_connected =
        plan_.about == theme::names || random_.percent(plan_.about == theme::connection ? 35 : 75);
    plan_.restarts_daemon = may_restart && plan_.about != theme::names;
    plan_.drives_from_here = random_.percent(30);
    plan_.cancels_at_end = random_.percent(50);
    plan_.exclusive = random_.percent(50);
    plan_.eager = random_.percent(50);
    constexpr std::array<unsigned, 4> handovers{0, 20, 100, 300};
    constexpr std::array<unsigned, 4> locks{0, 3, 15, 40};
    plan_.handovers = handovers.at(random_.below(4));
    plan_.locks = locks.at(random_.below(4));
    // A quarter of the sequences has one thread only, the loop's or another.
    const unsigned threads = random_.percent(25) ? 1 : 2 + random_.below(3);
    plan_.threads.resize(1);
    if (threads > 1 || random_.percent(70)) {
        plan_.threads.front() = make_steps(2 + random_.below(5), 0);
    }
    while (plan_.threads.size() < threads || plan_.operations == 0) {
        plan_.threads.push_back(make_steps(2 + random_.below(5), 0));
    }
}

std::vector<step> maker::make_steps(unsigned count, int depth) {
    std::vector<step> steps;
    for (unsigned i = 0; i < count; ++i) {
        steps.push_back(make_step(depth));
    }
    return steps;
}

act maker::choose() {
    unsigned at = random_.below(std::accumulate(weights_.begin(), weights_.end(), 0U));
    std::size_t chosen = 0;
    while (at >= weights_.at(chosen)) {
        at -= weights_.at(chosen++);
    }
    return static_cast<act>(chosen);
}

int maker::some_operation() {
    return plan_.operations == 0
               ? 0
               : 1 + static_cast<int>(random_.below(static_cast<unsigned>(plan_.operations)));
}

void maker::add_inside(std::vector<step>& inside, int depth) {
    if (depth < 3 && random_.percent(depth == 0 ? 45 : 35)) {
        inside = make_steps(1 + random_.below(2), depth + 1);
    }
}

void maker::choose_call(step& s) {
    const unsigned where = random_.below(10);
    if (where == 0) {
        s.unknown = true;
    } else if (where < 6 || plan_.about == theme::names) {
        s.name = static_cast<int>(random_.below(own_names.size()));
        s.method = static_cast<int>(random_.below(own_methods.size()));
    } else {
        s.method = static_cast<int>(random_.below(remote_methods.size()));
    }
    s.limit = some_limit();
}

int maker::some_limit() {
    const unsigned limit = random_.below(20);
    return limit < 12   ? 0
           : limit < 17 ? 1 + static_cast<int>(random_.below(3))
           : limit < 19 ? far_limit
                        : -1;
}

void maker::choose_bus(step& s) {
    const auto index_in = [this](const auto& choices) {
        return static_cast<int>(random_.below(static_cast<unsigned>(choices.size())));
    };
    s.pattern = s.what == act::peer_event ? index_in(event_ids) : index_in(event_patterns);
    // The last of the foreign names is not there before the end.
    s.foreign =
        static_cast<int>(random_.below(foreign_names.size() - (s.what == act::follow ? 0 : 1)));
    s.name = index_in(own_names);
    s.limit = some_limit();
    switch (s.what) {
    case act::await_objects:
        s.paths = random_.below(1U << (foreign_names.size() + 1));
        break;
    case act::ask:
        s.method = index_in(notification_methods);
        break;
    case act::follow:
        if (random_.percent(85)) {
            s.name = -1;
        }
        s.method = static_cast<int>(random_.below(notification_answers));
        s.answers = random_.percent(80);
        break;
    case act::peer_event:
        s.limit = 1 + static_cast<int>(random_.below(8));
        break;
    case act::peer_toggle:
        s.limit = 2 + static_cast<int>(random_.below(8));
        break;
    default:
        break;
    }
    if (s.is_standing() && random_.percent(20)) {
        s.most = 1 + static_cast<int>(random_.below(3));
    }
}

step maker::make_step(int depth) {
    step s;
    s.what = choose();
    if (s.is_operation() && plan_.operations >= most_operations) {
        s.what = act::get_state;
    }
    switch (s.what) {
    case act::invoke:
    case act::invoke_each:
        choose_call(s);
        break;
    case act::add:
    case act::del:
    case act::peer_call:
        s.name = static_cast<int>(random_.below(own_names.size()));
        s.method = static_cast<int>(random_.below(own_methods.size()));
        s.stop_serving = random_.percent(50);
        break;
    case act::subscribe:
        s.trigger = static_cast<client::state>(random_.below(4));
        break;
    case act::auto_connect:
        for (unsigned i = random_.below(8); i > 0; --i) {
            s.delays.push_back(random_.percent(85) ? 1 : 0);
        }
        break;
    case act::release:
    case act::wait:
        s.target = some_operation();
        break;
    default:
        if ((s.is_operation() && s.what >= act::send_event) || s.what >= act::peer_publish) {
            choose_bus(s);
        }
        break;
    }
    if (!s.is_operation()) {
        return s;
    }
    s.id = ++plan_.operations;
    if (s.what == act::cancel) {
        return s;
    }
    // Those that last have nothing to do without a handler, but subscriptions.
    s.silent = s.what != act::subscribe && (!s.is_standing() || s.what == act::follow) &&
               random_.percent(8);
    if (!s.silent) {
        // Not a back-off function: it must not throw.
        s.throws = throws_ && s.what != act::auto_connect && random_.percent(25);
        add_inside(s.inside, depth);
        if (s.is_standing() && random_.percent(15) && cancels()) {
            // With more to be delivered by the same operation.
            step cancel;
            cancel.what = act::cancel;
            cancel.id = ++plan_.operations;
            s.inside.push_back(cancel);
        }
        if (!s.inside.empty() && random_.percent(15)) {
            step own;
            own.what = act::release;
            own.target = s.id;
            s.inside.insert(std::next(s.inside.begin(), static_cast<int>(random_.below(2))), own);
        }
    }
    if (s.what == act::add) {
        s.serving_throws = throws_ && random_.percent(30);
        add_inside(s.serving, depth);
    }
    return s;
}

std::string call_of(const step& s) {
    if (s.unknown) {
        return unknown_path;
    }
    return s.name < 0 ? std::string(remote_path) + " " +
                            remote_methods.at(static_cast<std::size_t>(s.method))
                      : std::string(own_names.at(static_cast<std::size_t>(s.name))) + " " +
                            own_methods.at(static_cast<std::size_t>(s.method));
}

void print(std::string& out, const std::vector<step>& steps, const std::string& indent) {
    for (const step& s : steps) {
        out += indent + name_of(s) + '\n';
        print(out, s.inside, indent + "    in its handler: ");
        print(out, s.serving, indent + "    when called: ");
    }
}

} // namespace

plan make_plan(std::uint64_t seed, bool may_restart) {
    plan p;
    p.seed = seed;
    maker(p, seed).make(may_restart);
    return p;
}

std::vector<std::string> awaited_by(const step& s) {
    std::vector<std::string> paths;
    for (std::size_t i = 0; i <= foreign_names.size(); ++i) {
        if ((s.paths >> i & 1U) != 0) {
            paths.emplace_back(i < foreign_names.size() ? foreign_names.at(i) : remote_path);
        }
    }
    return paths;
}

std::string followed_by(const step& s) {
    return s.name >= 0 ? own_names.at(static_cast<std::size_t>(s.name))
                       : foreign_names.at(static_cast<std::size_t>(s.foreign));
}

bool matches(const std::string& pattern, const std::string& name) {
    return pattern.back() == '*'
               ? name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0
               : name == pattern;
}

std::string name_of(const step& s) {
    const std::string number = "#" + std::to_string(s.id) + " ";
    const std::string target = "#" + std::to_string(s.target);
    const std::string name = s.name < 0 ? "" : own_names.at(static_cast<std::size_t>(s.name));
    const std::string foreign =
        s.foreign < 0 ? "" : foreign_names.at(static_cast<std::size_t>(s.foreign));
    std::string text;
    switch (s.what) {
    case act::connect:
        text = number + "connect";
        break;
    case act::auto_connect:
        text = number + "auto_connect, delays";
        for (const int delay : s.delays) {
            text += " " + std::to_string(delay);
        }
        break;
    case act::disconnect:
        text = number + "disconnect";
        break;
    case act::cancel:
        return number + "cancel";
    case act::invoke:
    case act::invoke_each:
        text = number + (s.what == act::invoke ? "invoke " : "invoke_each ") + call_of(s);
        if (s.limit != 0) {
            text += ", limit " + std::to_string(s.limit);
        }
        break;
    case act::add:
        text = number + "add_object " + name;
        break;
    case act::del:
        text = number + "del_object " + name + (s.stop_serving ? ", stop serving" : "");
        break;
    case act::subscribe:
        text = number + "subscribe, for state " + std::to_string(static_cast<int>(s.trigger));
        break;
    case act::send_event:
        text = number + "send_event";
        break;
    case act::objects:
        text = number + "objects " + object_patterns.at(static_cast<std::size_t>(s.pattern));
        break;
    case act::await_objects:
        text = number + "wait_for";
        for (const std::string& path : awaited_by(s)) {
            text += " " + path;
        }
        break;
    case act::notify:
        text = number + "notify " + name;
        break;
    case act::ask:
        text = number + "notify " + name + " and wait, " +
               notification_methods.at(static_cast<std::size_t>(s.method));
        break;
    case act::listen:
        text = number + "listen " + event_patterns.at(static_cast<std::size_t>(s.pattern));
        break;
    case act::on_object:
        text = number + "on_object " + object_patterns.at(static_cast<std::size_t>(s.pattern));
        break;
    case act::follow:
        text = number + "subscribe to " + followed_by(s) + ", answer " + std::to_string(s.method) +
               (s.answers ? "" : ", answered at once");
        break;
    case act::on_subscribers:
        text = number + "on_subscribers " + name;
        break;
    case act::monitor:
        text = number + "monitor";
        break;
    case act::release:
        return "release " + target;
    case act::get_state:
        return "get_state";
    case act::answer:
        return "answer";
    case act::peer_call:
        return "the other process calls " + call_of(s);
    case act::drop_bus:
        return "the bus ends the connection";
    case act::refuse_bus:
        return "the bus turns away";
    case act::allow_bus:
        return "the bus lets in";
    case act::wait:
        return "wait for " + target;
    case act::pause:
        return "pause";
    case act::stats:
        return "stats";
    case act::peer_publish:
        return "the other process publishes " + foreign;
    case act::peer_withdraw:
        return "the other process withdraws " + foreign;
    case act::peer_toggle:
        return "the other process publishes in turns";
    case act::peer_event:
        return std::string("the other process sends ") +
               event_ids.at(static_cast<std::size_t>(s.pattern));
    case act::peer_notify:
        return "the other process notifies from " + foreign;
    case act::peer_ask:
        return "the other process asks from " + foreign;
    case act::peer_subscribe:
        return "the other process subscribes to " + name;
    case act::peer_unsubscribe:
        return "the other process unsubscribes from " + name;
    }
    if (s.limit != 0 && (s.what == act::await_objects || s.what == act::ask)) {
        text += ", limit " + std::to_string(s.limit);
    }
    text += s.most != 0 ? ", at most " + std::to_string(s.most) : "";
    text += s.silent ? ", no handler" : "";
    text += s.throws ? ", throws" : "";
    text += s.serving_throws ? ", throws when called" : "";
    return text;
}

std::string text_of(const plan& p) {
    std::string out = std::string("about: ") + theme_names.at(static_cast<std::size_t>(p.about)) +
                      (p.starts_connected ? ", connected at the beginning" : "") +
                      (p.restarts_daemon ? ", the daemon is killed and started" : "") +
                      (p.exclusive ? ", one foreign object at a time" : "") +
                      (p.eager ? ", first subscribers are asked" : "") + ", delays " +
                      std::to_string(p.handovers) + "/" + std::to_string(p.locks) + '\n';
    for (std::size_t i = 0; i < p.threads.size(); ++i) {
        out += i == 0 ? "the loop:\n" : "thread " + std::to_string(i) + ":\n";
        print(out, p.threads[i], "    ");
    }
    return out;
}

} // namespace tarn::test
