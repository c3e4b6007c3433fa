/// The fake client's connection: its states, the handlers that wait for them, and automatic
/// reconnection.
#include "fake_core.h"

#include "client/all_steps.h"
#include "tarn/error.h"
#include "tarn/link.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <stdexcept>

namespace tarn::testing {

using misc::aggregate_adapter;

fake_client::core::core(const std::shared_ptr<utils::event_loop>& loop)
    : loop_(loop)
    , rest_(std::make_shared<fake_bus::core>(loop)) {}

/// With the lock held.
void fake_client::core::post_locked(std::function<void()> task) {
    get_loop()->post([self = shared_from_this(), life = life_, task = std::move(task)] {
        {
            const guard locked(self->lock_);
            if (self->life_ != life) {
                return; // cancelled since
            }
        }
        task();
    });
}

utils::link fake_client::core::report(const completion_handler& handler,
                                      const std::error_code& code) {
    return handler ? report_among(reports_, std::make_shared<waiting>(handler), code)
                   : utils::link();
}

utils::link fake_client::core::report_known(const completion_handler& handler,
                                            const std::error_code& code) {
    return handler ? report_among(known_, std::make_shared<known_report>(handler, code), code)
                   : utils::link();
}

template <class Report>
utils::link fake_client::core::report_among(std::list<std::shared_ptr<Report>>& others,
                                            const std::shared_ptr<Report>& known,
                                            const std::error_code& code) {
    const guard locked(lock_);
    others.remove_if([](const auto& old) { return !old->active(); });
    others.push_back(known);
    post_locked([known, code] { known->tell(code); });
    return aggregate_adapter<utils::link>(known);
}

/// With the lock held.
void fake_client::core::take_step(connection_event event) {
    const connection_step step = next_step(state_, event);
    switch (step.then) {
    case connection_step::action::start_attempt:
        start_attempt();
        break;
    case connection_step::action::tear_down:
        ++connection_; // answers of calls that it has carried are dropped from here on
        is_carried_ = false;
        post_locked([this] { end_connection(); });
        break;
    case connection_step::action::none:
        break;
    }
    if (state_ == step.next) {
        return;
    }
    if (state_ == state::connected) {
        rest_->connection_ended();
    }
    state_ = step.next;
    if (state_ == state::connected) {
        rest_->connection_made();
    }
    attempts_ = state_ == state::connected ? 0 : attempts_;
    states_.push_back(state_);
    announcer_.note(state_);
}

/// With the lock held.
void fake_client::core::start_attempt() {
    is_carried_ = true;
    attempt_waits_ = bus_ == bus::silent;
    if (!attempt_waits_) {
        post_locked([this, made = bus_ == bus::present] { end_attempt(made); });
    }
}

utils::link fake_client::core::wait_for(connection_event event, state reached, asked_list& others,
                                        const completion_handler& handler) {
    end_reconnection();
    utils::link link;
    bool is_reached = false;
    {
        const guard locked(lock_);
        is_reached = !cancelling_ && state_ == reached;
        if (!is_reached && handler) {
            const bool inside = teller_ == std::this_thread::get_id();
            others.push_back(std::make_shared<asked>(handler, ++newest_asked_, inside));
            link = aggregate_adapter<utils::link>(others.back());
        }
        if (!is_reached && !cancelling_) {
            take_step(event);
        }
    }
    if (is_reached) {
        return report_known(handler, {});
    }
    announce_or_release(link);
    return link;
}

utils::link fake_client::core::connect(const completion_handler& handler) {
    return wait_for(connection_event::connect, state::connected, connects_, handler);
}

utils::link fake_client::core::disconnect(const completion_handler& handler) {
    return wait_for(connection_event::disconnect, state::disconnected, disconnects_, handler);
}

/// The reporting of one outcome of the connection, by the calling thread.
class fake_client::core::telling {
public:
    /// With the lock held.
    explicit telling(core& owner)
        : newest(owner.newest_asked_)
        , life(owner.life_)
        , owner_(owner)
        , outer_(std::exchange(owner.teller_, std::this_thread::get_id())) {}
    ~telling() {
        const guard locked(owner_.lock_);
        owner_.teller_ = outer_;
    }
    telling(const telling&) = delete;
    telling& operator=(const telling&) = delete;

    const std::uint64_t newest; ///< of the handlers that waited when it began
    const std::uint64_t life;

private:
    core& owner_;
    const std::thread::id outer_;
};

/// Reports the outcome to the handlers that have waited since `before`, and with `insiders` to
/// those that have joined inside a handler. Others wait for the next outcome. When one throws,
/// those behind it are dropped with it.
void fake_client::core::tell_all(asked_list& others, std::uint64_t before, bool insiders,
                                 std::uint64_t life, const std::error_code& code) {
    std::uint64_t last = before;
    if (insiders) {
        const guard locked(lock_);
        last = newest_asked_;
    }
    const auto next = [&]() -> std::shared_ptr<asked> {
        const guard locked(lock_);
        const auto found = std::find_if(others.begin(), others.end(), [&](const auto& each) {
            return each->number <= before || (each->number <= last && each->asked_inside);
        });
        if (life_ != life || found == others.end()) {
            return nullptr; // cancelled, or done
        }
        auto taken = *found;
        others.erase(found);
        return taken;
    };
    while (const auto told = next()) {
        try {
            told->tell(code);
        } catch (...) {
            while (const auto dropped = next()) {
                dropped->release();
            }
            throw;
        }
    }
}

void fake_client::core::end_attempt(bool made) {
    std::optional<telling> outcome;
    bool ending = false;
    {
        const guard locked(lock_);
        outcome.emplace(*this);
        ending = state_ == state::disconnecting;
        take_step(made ? connection_event::made : connection_event::failed);
    }
    const std::error_code code =
        made ? std::error_code() : make_error_code(error::generic::unknown_error);
    all_steps steps;
    steps.run([this] { announce(); });
    steps.run([&] { tell_all(connects_, outcome->newest, !ending, outcome->life, code); });
    if (!ending) {
        steps.run([&] {
            tell_all(disconnects_, outcome->newest, true, outcome->life, error::generic::aborted);
        });
    }
    steps.pass_on();
}

void fake_client::core::end_connection() {
    std::optional<telling> outcome;
    bool is_next_begun = false;
    {
        const guard locked(lock_);
        outcome.emplace(*this);
        take_step(connection_event::torn_down);
        is_next_begun = is_carried_;
    }
    all_steps steps;
    steps.run([this] { announce(); });
    steps.run([&] { tell_all(disconnects_, outcome->newest, true, outcome->life, {}); });
    if (!is_next_begun) {
        steps.run([&] {
            tell_all(connects_, outcome->newest, true, outcome->life, error::generic::aborted);
        });
    }
    steps.run([this] { end_calls(error::msg::connection_failed); });
    {
        std::map<std::string, method_map> forgotten; // destroyed outside the lock
        const guard locked(lock_);
        forgotten.swap(objects_);
    }
    steps.pass_on();
}

void fake_client::core::set_bus(bus found) {
    const guard locked(lock_);
    bus_ = found;
    if (attempt_waits_) {
        start_attempt();
    }
}

void fake_client::core::lose_connection() {
    {
        const guard locked(lock_);
        if (state_ != state::connected) {
            return;
        }
        take_step(connection_event::lost);
    }
    announce();
}

// --- subscribers ---

utils::link fake_client::core::notify_on_state_change(const state_handler& handler) {
    if (!handler) {
        return {};
    }
    const auto added = std::make_shared<subscriber>(handler);
    const guard locked(lock_);
    subscribers_.push_back(added);
    return aggregate_adapter<utils::link>(added);
}

void fake_client::core::announce() {
    announcer_.announce([this](state reached) { tell_state(reached); });
}

/// When a subscriber throws, the caller gets no link to release.
void fake_client::core::announce_or_release(utils::link& link) {
    try {
        announce();
    } catch (...) {
        link.release();
        throw;
    }
}

void fake_client::core::tell_state(state reached) {
    if (reached == state::disconnected) {
        arm_reconnection();
    }
    std::vector<std::shared_ptr<const state_handler>> told; // also one that is released meanwhile
    {
        const guard locked(lock_);
        subscribers_.remove_if([](const auto& each) { return !each->active(); });
        for (const auto& each : subscribers_) {
            told.push_back(each->handler());
        }
    }
    for (const auto& handler : told) {
        if (handler) {
            (*handler)(reached);
        }
    }
}

// --- automatic reconnection ---

utils::link fake_client::core::auto_connect(const backoff_function& backoff) {
    end_reconnection();
    std::shared_ptr<reconnection> wanted;
    utils::link link;
    if (backoff) {
        wanted = std::make_shared<reconnection>(reconnection{backoff});
        link.assign(misc::create_link(wanted, [self = weak_from_this(), only = wanted.get()] {
            if (const auto kept = self.lock()) {
                kept->end_reconnection(only);
            }
        }));
    }
    {
        const guard locked(lock_);
        reconnection_ = std::move(wanted);
        if (!cancelling_) {
            take_step(connection_event::connect);
        }
    }
    announce_or_release(link);
    return link;
}

void fake_client::core::end_reconnection(const reconnection* only) {
    std::shared_ptr<reconnection> ended; // destroyed outside the lock
    std::shared_ptr<utils::event_loop::timer> stopped;
    const guard locked(lock_);
    if (only != nullptr && only != reconnection_.get()) {
        return; // replaced since
    }
    ended.swap(reconnection_);
    stopped.swap(timer_);
    attempts_ = 0;
}

void fake_client::core::arm_reconnection() {
    std::weak_ptr<reconnection> wanted;
    backoff_function backoff;
    long long attempt = 0;
    {
        const guard locked(lock_);
        if (!reconnection_ || state_ != state::disconnected || announcer_.is_behind()) {
            return; // switched off, or superseded by a change that is announced next
        }
        attempts_ += attempts_ < std::numeric_limits<long long>::max() ? 1 : 0;
        attempt = attempts_;
        wanted = reconnection_;
        backoff = reconnection_->backoff;
    }
    const std::chrono::seconds delay = backoff(attempt);
    if (delay < std::chrono::seconds(1)) {
        if (const auto kept = wanted.lock()) {
            end_reconnection(kept.get());
        }
        return;
    }
    const auto timer = get_loop()->create_timer();
    timer->set_timeout(delay);
    timer->set_handler([self = weak_from_this(), wanted] {
        const auto kept = self.lock();
        if (!kept) {
            return;
        }
        {
            const guard locked(kept->lock_);
            if (kept->cancelling_ || wanted.expired() || kept->reconnection_ != wanted.lock()) {
                return;
            }
            kept->take_step(connection_event::connect);
        }
        kept->announce();
    });
    const guard locked(lock_);
    timer_ = timer;
}

// --- cancellation and the end ---

void fake_client::core::cancel() {
    end_reconnection();
    std::uint64_t life = 0;
    std::map<std::string, method_map> forgotten; // may own exchange contexts, which take the lock
    {
        const guard locked(lock_);
        if (is_carried_) {
            take_step(connection_event::lost);
        }
        life = ++life_; // what is queued on the loop becomes a no-op
        cancelling_ = true;
        ++connection_;
        attempt_waits_ = false;
        forgotten.swap(objects_);
    }
    forgotten.clear();
    announce();
    // What a handler that throws leaves is ended by another cancel().
    end_calls(error::generic::aborted);
    const auto take = [this](auto& others) {
        const guard locked(lock_);
        return std::exchange(others, {});
    };
    all_steps steps;
    for (const auto& each : take(reports_)) {
        steps.run([&] { each->tell(error::generic::aborted); });
    }
    steps.pass_on();
    rest_->cancel();
    for (const auto& each : take(known_)) {
        steps.run([&] { each->tell(each->code); });
    }
    steps.pass_on();
    // A handler may have cancelled as well; that one has done the rest, and the life is another.
    const auto disconnected = [&] {
        const guard locked(lock_);
        if (life_ == life) {
            take_step(connection_event::cancelled);
        }
        return newest_asked_;
    };
    const auto disconnects = disconnected();
    announce();
    tell_all(disconnects_, disconnects, false, life, {});
    const auto connects = disconnected();
    announce();
    tell_all(connects_, connects, false, life, error::generic::aborted);
    const guard locked(lock_);
    cancelling_ = cancelling_ && life_ != life;
}

void fake_client::core::close() noexcept {
    // What is destroyed here may begin something else, which ends in the next turn.
    for (bool some = true; some;) {
        some = drop_all();
        some = rest_->close() || some;
    }
}

/// Destroys without the lock what waits, with all that it owns. False when nothing waits.
bool fake_client::core::drop_all() noexcept {
    end_reconnection();
    std::list<std::shared_ptr<waiting_call>> calls;
    waiting_list reports;
    std::list<std::shared_ptr<known_report>> known;
    asked_list connects;
    asked_list disconnects;
    std::list<std::shared_ptr<subscriber>> subscribers;
    std::map<std::string, method_map> objects;
    decltype(script_) script;
    {
        const guard locked(lock_);
        ++life_;
        ++connection_;
        state_ = state::disconnected;
        is_carried_ = false;
        calls.swap(calls_);
        reports.swap(reports_);
        known.swap(known_);
        connects.swap(connects_);
        disconnects.swap(disconnects_);
        subscribers.swap(subscribers_);
        objects.swap(objects_);
        script.swap(script_);
    }
    // Released, since a handler may own the link of what it waits for.
    const auto release = [](const auto& all) {
        for (const auto& each : all) {
            each->release();
        }
        return !all.empty();
    };
    const std::array some{release(calls),    release(reports),     release(known),
                          release(connects), release(disconnects), release(subscribers),
                          !objects.empty(),  !script.empty()};
    return std::find(some.begin(), some.end(), true) != some.end();
}

} // namespace tarn::testing
