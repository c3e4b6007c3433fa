/// Makes what a sequence does from its seed.
#include "plan.h"

#include "chance.h"

#include <numeric>
#include <utility>

namespace tarn::test {

namespace {

using act = step::act;

constexpr int most_operations = 36;

/// How often each act is chosen, in the order of step::act.
using weights = std::array<unsigned, 18>;

constexpr std::array<weights, 4> weights_of{{
    // con aut dis can inv eac add del sub rel get ans pee dro ref all wai pau
    {{20, 14, 20, 12, 5, 2, 3, 1, 10, 12, 2, 0, 1, 6, 6, 3, 10, 4}}, // connection
    {{0, 0, 0, 0, 10, 1, 35, 30, 1, 8, 1, 2, 8, 0, 0, 0, 8, 4}},     // names
    {{3, 1, 2, 3, 30, 12, 6, 5, 1, 18, 2, 10, 10, 3, 1, 1, 10, 4}},  // calls
    {{10, 6, 8, 7, 14, 5, 14, 9, 5, 12, 2, 5, 5, 4, 2, 2, 10, 4}},   // mixed
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
    void add_inside(std::vector<step>& inside, int depth);
    act choose();
    int some_operation();

    plan& plan_;
    chance random_;
    weights weights_{};
    bool throws_ = false;
};

void maker::make(bool may_restart) {
    plan_.about = static_cast<theme>(random_.below(4));
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
    const unsigned limit = random_.below(20);
    s.limit = limit < 12   ? 0
              : limit < 17 ? 1 + static_cast<int>(random_.below(3))
              : limit < 19 ? far_limit
                           : -1;
}

step maker::make_step(int depth) {
    step s;
    s.what = choose();
    if (s.what <= act::subscribe && plan_.operations >= most_operations) {
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
        break;
    }
    if (s.what > act::subscribe) {
        return s;
    }
    s.id = ++plan_.operations;
    if (s.what == act::cancel) {
        return s;
    }
    s.silent = s.what != act::subscribe && random_.percent(8);
    if (!s.silent) {
        // Not a back-off function: it must not throw.
        s.throws = throws_ && s.what != act::auto_connect && random_.percent(25);
        add_inside(s.inside, depth);
        if (!s.inside.empty() && random_.percent(15)) {
            step own;
            own.what = act::release;
            own.target = s.id;
            s.inside.insert(s.inside.begin() + random_.below(2), own);
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

std::string name_of(const step& s) {
    const std::string number = "#" + std::to_string(s.id) + " ";
    const std::string target = "#" + std::to_string(s.target);
    const std::string name = s.name < 0 ? "" : own_names.at(static_cast<std::size_t>(s.name));
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
    }
    text += s.silent ? ", no handler" : "";
    text += s.throws ? ", throws" : "";
    text += s.serving_throws ? ", throws when called" : "";
    return text;
}

std::string text_of(const plan& p) {
    std::string out = std::string("about: ") + theme_names.at(static_cast<std::size_t>(p.about)) +
                      (p.starts_connected ? ", connected at the beginning" : "") +
                      (p.restarts_daemon ? ", the daemon is killed and started" : "") +
                      ", delays " + std::to_string(p.handovers) + "/" + std::to_string(p.locks) +
                      '\n';
    for (std::size_t i = 0; i < p.threads.size(); ++i) {
        out += i == 0 ? "the loop:\n" : "thread " + std::to_string(i) + ":\n";
        print(out, p.threads[i], "    ");
    }
    return out;
}

} // namespace tarn::test
