/// The fake client's connection: its states, the handlers that wait for them, and automatic
/// reconnection.
#include "fake_core.h"

#include "tarn/error.h"
#include "tarn/link.h"

#include <algorithm>
#include <limits>
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
    if (!handler) {
        return {};
    }
    const auto known = std::make_shared<waiting>(handler);
    const guard locked(lock_);
    reports_.remove_if([](const auto& old) { return !old->active(); });
    reports_.push_back(known);
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
    untold_.push_back(state_);
}

/// With the lock held.
void fake_client::core::start_attempt() {
    attempt_waits_ = bus_ == bus::silent;
    if (!attempt_waits_) {
        post_locked([this, made = bus_ == bus::present] { end_attempt(made); });
    }
}

utils::link fake_client::core::wait_for(connection_event event, state reached, waiting_list& others,
                                        const completion_handler& handler) {
    end_reconnection();
    const auto operation = handler ? std::make_shared<waiting>(handler) : nullptr;
    bool reached_already = false;
    {
        const guard locked(lock_);
        reached_already = state_ == reached;
        if (!reached_already) {
            if (operation) {
                others.push_back(operation);
            }
            take_step(event);
        }
    }
    if (reached_already) {
        return report(handler, {});
    }
    announce();
    return operation ? utils::link(aggregate_adapter<utils::link>(operation)) : utils::link();
}

utils::link fake_client::core::connect(const completion_handler& handler) {
    return wait_for(connection_event::connect, state::connected, connects_, handler);
}

utils::link fake_client::core::disconnect(const completion_handler& handler) {
    return wait_for(connection_event::disconnect, state::disconnected, disconnects_, handler);
}

void fake_client::core::tell_all(waiting_list& told, const std::error_code& code) {
    for (; !told.empty(); told.pop_front()) {
        told.front()->tell(code);
    }
}

void fake_client::core::end_attempt(bool made) {
    waiting_list connects;
    waiting_list disconnects;
    {
        const guard locked(lock_);
        const bool ending = state_ == state::disconnecting;
        take_step(made ? connection_event::made : connection_event::failed);
        connects.swap(connects_);
        if (!ending) {
            disconnects.swap(disconnects_);
        }
    }
    announce();
    tell_all(connects, made ? std::error_code() : make_error_code(error::generic::unknown_error));
    tell_all(disconnects, error::generic::aborted);
}

void fake_client::core::end_connection() {
    waiting_list connects;
    waiting_list disconnects;
    {
        const guard locked(lock_);
        take_step(connection_event::torn_down);
        disconnects.swap(disconnects_);
        if (state_ == state::disconnected) {
            connects.swap(connects_);
        }
    }
    announce();
    tell_all(disconnects, {});
    tell_all(connects, error::generic::aborted);
    end_calls(error::msg::connection_failed);
    std::map<std::string, method_map> forgotten; // destroyed outside the lock
    const guard locked(lock_);
    forgotten.swap(objects_);
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

/// Reports the changes that have not been reported. One that a subscriber makes is reported when
/// its call has returned.
void fake_client::core::announce() {
    std::unique_lock<std::mutex> locked(lock_);
    if (telling_) {
        return;
    }
    telling_ = true;
    while (!untold_.empty()) {
        const state reached = untold_.front();
        untold_.pop_front();
        subscribers_.remove_if([](const auto& each) { return !each->active(); });
        const auto told = subscribers_;
        locked.unlock();
        if (reached == state::disconnected) {
            arm_reconnection();
        }
        for (const auto& each : told) {
            if (const auto handler = each->handler()) {
                (*handler)(reached);
            }
        }
        locked.lock();
    }
    telling_ = false;
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
        take_step(connection_event::connect);
    }
    announce();
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
        if (!reconnection_ || state_ != state::disconnected) {
            return;
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
            if (wanted.expired() || kept->reconnection_ != wanted.lock()) {
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
    waiting_list reports;
    waiting_list connects;
    waiting_list disconnects;
    std::map<std::string, method_map> forgotten; // may own exchange contexts, which take the lock
    {
        const guard locked(lock_);
        ++life_; // what is queued on the loop becomes a no-op
        ++connection_;
        attempt_waits_ = false;
        reports.swap(reports_);
        connects.swap(connects_);
        disconnects.swap(disconnects_);
        forgotten.swap(objects_);
        if (state_ != state::disconnected) {
            take_step(connection_event::cancelled);
        }
    }
    forgotten.clear();
    rest_->cancel();
    end_calls(error::generic::aborted);
    tell_all(reports, error::generic::aborted);
    announce();
    tell_all(disconnects, {});
    tell_all(connects, error::generic::aborted);
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
    waiting_list connects;
    waiting_list disconnects;
    std::list<std::shared_ptr<subscriber>> subscribers;
    std::map<std::string, method_map> objects;
    decltype(script_) script;
    {
        const guard locked(lock_);
        ++life_;
        ++connection_;
        state_ = state::disconnected;
        untold_.clear();
        calls.swap(calls_);
        reports.swap(reports_);
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
    bool some = release(calls);
    for (const auto* waiting : {&reports, &connects, &disconnects}) {
        some = release(*waiting) || some;
    }
    return release(subscribers) || some || !objects.empty() || !script.empty();
}

} // namespace tarn::testing
