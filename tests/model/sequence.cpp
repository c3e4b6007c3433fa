/// One sequence at work.
#include "sequence.h"

#include "delays.h"
#include "journal.h"
#include "place.h"

#include "tarn/error.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

namespace tarn::test {

namespace {

constexpr int first_unplanned = 1000;

std::string number_of(const model_operation& op) {
    return "#" + std::to_string(op.planned.id);
}

int token_in(const blob::attr& reply) {
    const auto& fields = reply.get<blob::table>();
    const auto field = fields.find("token");
    return field == fields.end() ? -1 : field->second.get<int>();
}

std::multimap<std::string, blob::attr> token(const model_operation& op) {
    return {{"token", blob::attr(op.planned.id)}};
}

void pause_for(long nanoseconds) {
    const timespec pause{0, nanoseconds};
    ::nanosleep(&pause, nullptr);
}

void collect(const std::vector<step>& steps, std::vector<std::unique_ptr<model_operation>>& into) {
    for (const step& s : steps) {
        if (s.id != 0) {
            into.at(static_cast<std::size_t>(s.id)) = std::make_unique<model_operation>(s);
            into.at(static_cast<std::size_t>(s.id))->name = name_of(s);
        }
        collect(s.inside, into);
        collect(s.serving, into);
    }
}

} // namespace

std::string told(const std::error_code& code) {
    return !code                                   ? "success"
           : code == error::generic::aborted       ? "aborted"
           : code == error::generic::unknown_error ? "no bus"
                                                   : code.message();
}

sequence::sequence(world& w, const plan& p)
    : world_(w)
    , plan_(p) {
    planned_.resize(static_cast<std::size_t>(p.operations) + 1);
    for (const auto& thread : p.threads) {
        collect(thread, planned_);
    }
}

sequence::~sequence() = default;

// --- threads -----------------------------------------------------------------------------------

void sequence::start_threads() {
    loop_done_ = false;
    world_.loop().post([this] { run_on_loop(0); });
    for (std::size_t i = 1; i < plan_.threads.size(); ++i) {
        world_.threads().start(static_cast<unsigned>(i - 1), [this, i] { run(plan_.threads[i]); });
    }
}

bool sequence::finish_threads(std::chrono::seconds limit) {
    return world_.threads().finished(limit) &&
           world_.loop().wait_until([this] { return loop_done_.load(); }, limit);
}

// Up to three at once, and then other tasks of the loop come between.
void sequence::run_on_loop(std::size_t first) {
    const auto& steps = plan_.threads.front();
    const auto count = static_cast<std::size_t>(1 + (plan_.seed + first) % 3);
    const std::size_t last = std::min(steps.size(), first + count);
    while (first < last) {
        run(steps[first++]);
    }
    if (first == steps.size()) {
        loop_done_ = true;
    } else {
        world_.loop().post([this, first] { run_on_loop(first); });
    }
}

void sequence::run(const std::vector<step>& steps) {
    for (const step& s : steps) {
        maybe_delay();
        run(s);
    }
}

void sequence::run(const step& s) {
    if (s.id != 0) {
        model_operation& op = *find(s.id);
        perform(op, [&] { return call(op); });
        return;
    }
    switch (s.what) {
    case act::release:
        release(s.target);
        break;
    case act::get_state:
        if (static_cast<unsigned>(world_.bus().get_state()) > 3) {
            result().fail("get_state() gave what is no state");
        }
        break;
    case act::answer:
        answer();
        break;
    case act::peer_call:
        call_by_peer(s);
        break;
    case act::drop_bus:
    case act::refuse_bus:
    case act::allow_bus:
        upset_bus(s.what);
        break;
    case act::wait:
        wait_for(s.target);
        break;
    case act::pause:
        pause_for(100000);
        break;
    case act::stats:
        (void)world_.bus().get_bus().stats();
        break;
    default:
        order_peer(s);
        break;
    }
}

model_operation& sequence::adopt(step s) {
    const std::lock_guard<std::mutex> guard(lock_);
    s.id = first_unplanned + static_cast<int>(more_.size());
    more_.push_back(std::make_unique<model_operation>(std::move(s)));
    more_.back()->name = name_of(more_.back()->planned);
    return *more_.back();
}

model_operation& sequence::start(step s) {
    model_operation& op = adopt(std::move(s));
    perform(op, [&] { return call(op); });
    return op;
}

model_operation* sequence::find(int id) {
    if (id > 0 && id < first_unplanned) {
        return static_cast<std::size_t>(id) < planned_.size()
                   ? planned_[static_cast<std::size_t>(id)].get()
                   : nullptr;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto& op : more_) {
        if (op->planned.id == id) {
            return op.get();
        }
    }
    return nullptr;
}

std::vector<model_operation*> sequence::begun() {
    std::vector<model_operation*> found;
    for (const auto& op : planned_) {
        if (op && op->began != 0) {
            found.push_back(op.get());
        }
    }
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto& op : more_) {
        if (op->began != 0) {
            found.push_back(op.get());
        }
    }
    return found;
}

std::vector<sequence::peer_call> sequence::peer_calls() {
    const std::lock_guard<std::mutex> guard(lock_);
    return peer_calls_;
}

std::string sequence::whereabouts() {
    std::string text;
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto& [thread, stack] : stacks_) {
        for (const auto& name : stack) {
            text += "\n    " + thread + " is inside " + name;
        }
    }
    return text;
}

// --- operations --------------------------------------------------------------------------------

void sequence::perform(model_operation& op, const std::function<utils::link()>& call_it) {
    const std::string thread = journal::thread_name();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        stacks_[thread].push_back(op.name);
    }
    here.calls.push_back(&op);
    journal::note(op.name);
    const inside_of busy(busy_);
    op.in_cancel = here.cancels != 0;
    op.in_outcome = here.outcomes != 0;
    op.began = now();
    try {
        const utils::link link = call_it();
        const std::lock_guard<std::mutex> guard(op.lock);
        op.link = link;
    } catch (const thrown_by_handler&) {
        op.threw = true;
        journal::note(op.name + " passed on what a handler threw");
    } catch (const std::exception& e) {
        result().fail(op.name + " threw: " + e.what());
    }
    op.returned = now();
    here.calls.pop_back();
    const std::lock_guard<std::mutex> guard(lock_);
    stacks_[thread].pop_back();
}

utils::link sequence::call(model_operation& op) {
    client& bus = world_.bus();
    switch (op.planned.what) {
    case act::connect: {
        const inside_of drive(here.drives);
        return bus.connect(completion(op));
    }
    case act::auto_connect: {
        const inside_of drive(here.drives);
        if (op.planned.silent) {
            return bus.auto_connect({});
        }
        return bus.auto_connect(
            [this, self = witness(op)](long long attempt) { return back_off(*self, attempt); });
    }
    case act::disconnect: {
        const inside_of drive(here.drives);
        return bus.disconnect(completion(op));
    }
    case act::cancel:
        cancel(op);
        return {};
    case act::invoke:
    case act::invoke_each:
        return invoke(op);
    case act::add:
        return add_object(op);
    case act::del:
        return bus.del_object(own_names.at(static_cast<std::size_t>(op.planned.name)),
                              op.planned.stop_serving, completion(op));
    case act::subscribe:
        return bus.notify_on_state_change(
            [this, self = witness(op)](client::state s) { tell_state(*self, s); });
    default:
        return call_bus(op);
    }
}

void sequence::cancel(model_operation& op) {
    const inside_of drive(here.drives);
    const inside_of cancelling(here.cancels);
    const long sent = world_.last_peer_event();
    for (;;) {
        try {
            world_.bus().cancel();
            forbid_events(sent);
            check_all_ended(op);
            return;
        } catch (const thrown_by_handler&) {
            // What is left is done by another one.
            journal::note(op.name + " passed on what a handler threw, once more");
        }
    }
}

// Everything that had been asked for has ended before cancel() returns, where nothing can be under
// way elsewhere: in sequences that have the loop's thread alone, outside handlers.
void sequence::check_all_ended(const model_operation& cancel) {
    if (plan_.threads.size() > 1 || here.handlers != 0 || here.cancels > 1 ||
        !world_.loop().on_its_thread()) {
        return;
    }
    for (model_operation* const op : begun()) {
        const bool excused = op->released || op->threw || op->is_send || seen_.throws != 0 ||
                             op->began > cancel.began;
        if (op->is_reported() && op->runs == 0 && !excused) {
            result().fail(cancel.name + " has returned before the end of " + op->name);
        }
    }
}

utils::link sequence::invoke(model_operation& op, const context& served, model_operation* object) {
    const step& s = op.planned;
    const std::string path = s.unknown    ? unknown_path
                             : s.name < 0 ? remote_path
                                          : own_names.at(static_cast<std::size_t>(s.name));
    const std::string method = s.name < 0 ? remote_methods.at(static_cast<std::size_t>(s.method))
                                          : own_methods.at(static_cast<std::size_t>(s.method));
    const std::chrono::seconds limit(s.limit);
    if (s.what == act::invoke_each) {
        if (s.silent) {
            return world_.bus().invoke_each(path, method, token(op), {}, {}, limit);
        }
        return world_.bus().invoke_each(
            path, method, token(op),
            [this, self = witness(op)](const blob::attr&) {
                check_thread(*self, false);
                begin_handler(*self, "a reply");
                if (self->runs != 0 && !self->one_may_follow.exchange(false)) {
                    result().fail(self->name + ": told a reply after its end");
                }
                ++self->replies;
            },
            completion(op), limit);
    }
    if (s.silent) {
        return world_.bus().invoke(path, method, token(op), {}, limit);
    }
    return world_.bus().invoke(
        path, method, token(op),
        [this, self = witness(op), served, object](const std::list<blob::attr>& replies,
                                                   const std::error_code& code) {
            self->replies = static_cast<int>(replies.size());
            if (!code) {
                check_replies(*self, replies);
            }
            if (served) {
                answer_with(*object, served);
            }
            report(*self, code);
        },
        limit);
}

utils::link sequence::add_object(model_operation& op) {
    client::method_map methods;
    for (std::size_t i = 0; i < own_methods.size(); ++i) {
        methods[own_methods.at(i)] = {[this, self = witness(op), method = static_cast<int>(i)](
                                          const context& ctx) { serve(*self, method, ctx); },
                                      {}};
    }
    return world_.bus().add_object(own_names.at(static_cast<std::size_t>(op.planned.name)), methods,
                                   completion(op));
}

void sequence::release(int target) {
    model_operation* const op = find(target);
    if (op == nullptr) {
        return;
    }
    // The call itself may not have returned its link yet; then this releases nothing.
    const bool has_link = op->has_link();
    utils::link link = op->handle();
    const bool begun_before = op->runs != 0;
    if (link.active()) {
        op->released = true;
    }
    journal::note("release #" + std::to_string(target) + (link.active() ? "" : ", inactive"));
    try {
        link.release();
    } catch (const thrown_by_handler&) {
    } catch (const std::exception& e) {
        result().fail("the release of " + op->name + " threw: " + e.what());
    }
    if (link.active()) {
        result().fail("the released link of " + op->name + " is active");
    }
    // A change of the state that is being told goes to all who had subscribed before it.
    const bool silenced = op->planned.what == act::subscribe ? here.told == 0
                          : op->planned.is_standing()        ? true
                                                             : !begun_before;
    op->release_returned = op->release_returned || has_link;
    const std::lock_guard<std::mutex> guard(op->lock);
    if (has_link && silenced) {
        op->silenced_on = std::this_thread::get_id();
    }
}

void sequence::wait_for(int target) {
    const model_operation* const op = find(target);
    if (op == nullptr || world_.loop().on_its_thread()) {
        return;
    }
    world_.loop().wait_until([op] { return op->runs != 0; }, std::chrono::milliseconds(2));
}

void sequence::answer() {
    std::pair<context, model_operation*> oldest;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (kept_.empty()) {
            return;
        }
        oldest = kept_.front();
        kept_.pop_front();
    }
    journal::note("answers a kept call of " + oldest.second->name);
    answer_with(*oldest.second, oldest.first);
}

void sequence::drop_kept() {
    decltype(kept_) dropped;
    const std::lock_guard<std::mutex> guard(lock_);
    dropped.swap(kept_);
}

void sequence::call_by_peer(const step& s) {
    const std::lock_guard<std::mutex> guard(lock_);
    const int number =
        world_.order_peer("call", std::string(own_names.at(static_cast<std::size_t>(s.name))) +
                                      " " + own_methods.at(static_cast<std::size_t>(s.method)));
    peer_calls_.push_back({number, s});
    journal::note(name_of(s));
}

void sequence::upset_bus(act what) {
    if (what != act::allow_bus) {
        ++seen_.losses;
    }
    journal::note(what == act::drop_bus     ? "the bus ends the connection"
                  : what == act::refuse_bus ? "the bus turns away"
                                            : "the bus lets in");
    if (what == act::drop_bus) {
        world_.drop_bus();
    } else {
        world_.refuse_bus(what == act::refuse_bus);
    }
}

// --- handlers ----------------------------------------------------------------------------------

void sequence::check_thread(const model_operation& op, bool tells_state) {
    const bool its_callers = tells_state ? here.drives != 0 : here.cancels != 0;
    if (!world_.loop().on_its_thread() && !its_callers) {
        result().fail(op.name + ": a handler runs on a thread that is not the loop's");
    }
    if (!tells_state && here.cancels == 0 &&
        std::find(here.calls.begin(), here.calls.end(), &op) != here.calls.end()) {
        result().fail(op.name + ": its handler runs inside the call");
    }
}

void sequence::begin_handler(model_operation& op, const std::string& what) {
    journal::note(number_of(op) + " is told: " + what);
    const std::lock_guard<std::mutex> guard(op.lock);
    if (op.silenced_on == std::this_thread::get_id()) {
        result().fail(op.name + ": its handler runs after its link was released on this thread");
    }
}

client::completion_handler sequence::completion(model_operation& op) {
    if (op.planned.silent) {
        return {};
    }
    return [this, self = witness(op)](const std::error_code& code) {
        if (self->planned.what == act::invoke_each && !code) {
            check_replies(*self, {});
        }
        report(*self, code);
    };
}

void sequence::check_replies(const model_operation& op, const std::list<blob::attr>& replies) {
    const step& s = op.planned;
    const std::string method =
        s.name < 0 ? remote_methods.at(static_cast<std::size_t>(s.method)) : "";
    const int expected = method == "three" ? 3 : method == "echo" || method == "late" ? 1 : -1;
    // Replies that are told one by one may have been dropped, since a handler before them threw.
    const bool may_miss = s.what == act::invoke_each && seen_.throws != 0;
    if (expected >= 0 && op.replies != expected && !(may_miss && op.replies < expected)) {
        result().fail(op.name + ": succeeded with " + std::to_string(op.replies) + " replies");
    }
    for (const auto& reply : replies) {
        if (expected == 1 && token_in(reply) != s.id) {
            result().fail(op.name + ": got the reply of #" + std::to_string(token_in(reply)));
        }
        if (s.name >= 0) {
            const model_operation* const object = find(token_in(reply));
            if (object == nullptr || object->planned.what != act::add ||
                object->planned.name != s.name) {
                result().fail(op.name + ": answered by #" + std::to_string(token_in(reply)));
            }
        }
    }
}

void sequence::report(model_operation& op, const std::error_code& code) {
    const inside_of busy(busy_);
    const inside_of handling(here.handlers);
    check_thread(op, false);
    begin_handler(op, told(code));
    int others = 0;
    const inside_of outcome(op.planned.what <= act::disconnect ? here.outcomes : others);
    if (op.runs == 0) {
        op.state_then = world_.bus().get_state();
        op.one_may_follow = !world_.loop().on_its_thread();
    }
    {
        const std::lock_guard<std::mutex> guard(op.lock);
        if (op.runs == 0) {
            op.code = code;
        }
    }
    if (op.reported == 0) {
        op.reported = now();
    }
    if (++op.runs > 1) {
        result().fail(op.name + ": its handler runs once more, told: " + told(code));
        return;
    }
    act_inside(op.planned.inside, op.planned.throws);
}

void sequence::act_inside(const std::vector<step>& steps, bool throws) {
    if (plan_ended_) {
        return;
    }
    run(steps);
    if (throws) {
        ++seen_.throws;
        journal::note("throws");
        throw thrown_by_handler("thrown by a handler");
    }
}

void sequence::tell_state(model_operation& op, client::state s) {
    const inside_of busy(busy_);
    const inside_of handling(here.handlers);
    check_thread(op, true);
    begin_handler(op, "state " + std::to_string(static_cast<int>(s)));
    check_state(op, s);
    const inside_of telling(here.told);
    const inside_of outcome(here.outcomes);
    const auto over = [&op](const void*) {
        const std::lock_guard<std::mutex> guard(op.lock);
        --op.hearing;
    };
    const std::unique_ptr<model_operation, decltype(over)> hearing(&op, over);
    if (s == op.planned.trigger && ++op.runs == 1) {
        act_inside(op.planned.inside, op.planned.throws);
    }
}

// By one thread at a time, in the order of the changes.
void sequence::check_state(model_operation& op, client::state s) {
    // By number, which follow which.
    static constexpr std::array<std::array<bool, 4>, 4> follows{{
        {false, true, false, false}, // disconnected
        {true, false, true, true},   // connecting
        {false, false, false, true}, // connected
        {true, true, false, false},  // disconnecting
    }};
    if (&op == watcher_ && s == client::state::connected) {
        ++successes_;
    }
    seen_.inversions += here.told;
    const std::lock_guard<std::mutex> guard(op.lock);
    if (++op.hearing > 1 && op.heard_on != std::this_thread::get_id()) {
        result().fail(op.name + ": called by two threads at once");
    }
    // One who throws keeps the others from hearing.
    if (op.heard && seen_.throws == 0 && seen_.inversions == 0 &&
        !follows.at(static_cast<std::size_t>(*op.heard)).at(static_cast<std::size_t>(s))) {
        result().fail(op.name + ": told state " + std::to_string(static_cast<int>(s)) +
                      " after state " + std::to_string(static_cast<int>(*op.heard)));
    }
    op.heard = s;
    op.heard_on = std::this_thread::get_id();
}

void sequence::watch_states() {
    step s;
    s.what = act::subscribe;
    watcher_ = &adopt(s);
    perform(*watcher_, [this] { return call(*watcher_); });
}

void sequence::check_subscribers() {
    const client::state now = world_.bus().get_state();
    for (model_operation* const op : begun()) {
        const bool listens = op->planned.what == act::subscribe && op->handle().active();
        const std::lock_guard<std::mutex> guard(op->lock);
        if (listens && op->heard && *op->heard != now && seen_.throws == 0 &&
            seen_.inversions == 0) {
            result().fail(op->name + ": heard of state " +
                          std::to_string(static_cast<int>(*op->heard)) + " last, and it is " +
                          std::to_string(static_cast<int>(now)));
        }
    }
}

std::chrono::seconds sequence::back_off(model_operation& op, long long attempt) {
    const inside_of busy(busy_);
    const inside_of handling(here.handlers);
    check_thread(op, true);
    begin_handler(op, "attempt " + std::to_string(attempt));
    const int call = ++op.calls;
    {
        const std::lock_guard<std::mutex> guard(op.lock);
        const int successes = successes_;
        op.attempt = op.successes == successes ? op.attempt + 1 : 1;
        op.successes = successes;
        if (attempt != op.attempt) {
            result().fail(op.name + ": attempt " + std::to_string(attempt) + " instead of " +
                          std::to_string(op.attempt));
        }
    }
    const inside_of telling(here.told);
    const inside_of outcome(here.outcomes);
    if (call == 1) {
        act_inside(op.planned.inside, false);
    }
    const auto& delays = op.planned.delays;
    const auto index = static_cast<std::size_t>(call) - 1;
    return std::chrono::seconds(index < delays.size() ? delays[index] : 0);
}

void sequence::serve(model_operation& op, int method, const context& ctx) {
    const inside_of busy(busy_);
    const inside_of handling(here.handlers);
    check_thread(op, false);
    journal::note(number_of(op) +
                  " is called: " + own_methods.at(static_cast<std::size_t>(method)));
    if (op.runs != 0 && op.outcome() == error::msg::invalid_argument) {
        result().fail(op.name + ": called although its addition was refused");
    }
    if (++op.calls == 1) {
        act_inside(op.planned.serving, op.planned.serving_throws);
    }
    switch (method) {
    case 0:
        answer_with(op, ctx);
        break;
    case 1: {
        const std::lock_guard<std::mutex> guard(lock_);
        kept_.emplace_back(ctx, &op);
        break;
    }
    case 3:
        ctx->respond(error::msg::permission_denied);
        break;
    case 4: {
        step s;
        s.what = act::invoke;
        model_operation& relayed = adopt(s);
        relayed.name =
            number_of(relayed) + " invoke model.remote echo, for a call of " + number_of(op);
        perform(relayed, [&] { return invoke(relayed, ctx, &op); });
        break;
    }
    default:
        break;
    }
}

void sequence::answer_with(model_operation& op, const context& ctx) {
    step s;
    s.what = act::answer;
    s.silent = op.calls % 4 == 3;
    model_operation& reply = adopt(s);
    reply.name = number_of(reply) + " reply to a call of " + number_of(op);
    reply.is_send = true;
    perform(reply, [&] { return ctx->send(token(op), completion(reply)); });
    ctx->respond({});
}

} // namespace tarn::test
