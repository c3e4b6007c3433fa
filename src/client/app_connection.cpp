/// The application's side of the connection: its state, the handlers that wait for it, and
/// automatic reconnection.
#include "client/app_side.h"

#include "client/all_steps.h"
#include "client/handover.h"
#include "client/loop_side.h"
#include "counted.h"
#include "tarn/error.h"

#include <atomic>
#include <limits>
#include <new>
#include <optional>
#include <utility>

namespace tarn {

namespace {

using tarn::misc::aggregate_adapter;

/// A subscription to state changes. Shares the handler with its slot, so that the application's
/// captures are destroyed outside the lock.
class state_subscription final : public utils::link::impl {
public:
    /// With the lock held.
    state_subscription(std::mutex& lock, const unsigned& signal,
                       std::shared_ptr<client::state_handler> handler, const utils::link& slot)
        : lock_(lock)
        , handler_(std::move(handler))
        , slot_(slot)
        , signal_(signal) {}

    void release() override {
        std::shared_ptr<client::state_handler> dropped;
        const std::lock_guard<std::mutex> guard(lock_);
        if (signal_ == made_for_) {
            slot_.release();
        } // else the client has ended, and the slot is being destroyed without the lock
        released_ = true;
        dropped.swap(handler_);
    }

    bool active() const override { return !released_ && slot_.active(); }

private:
    std::mutex& lock_; ///< the client's, which is never destroyed
    std::shared_ptr<client::state_handler> handler_;
    utils::link slot_;
    std::atomic<bool> released_{false};
    const unsigned& signal_; ///< which one the client has, by number
    const unsigned made_for_ = signal_;
};

} // namespace

app_side::app_side(task_bridge& bridge, loop_side& loop)
    : bridge_(bridge)
    , loop_(loop) {}

void app_side::make_timer() {
    reconnect_timer_ = bridge_.get_eloop()->create_timer();
}

void app_side::set_timer_handler() {
    reconnect_timer_->set_handler([this] { reconnect(); });
}

// --- changes of the state, with the lock held ---

void app_side::set_state(client::state s) noexcept {
    if (state_ == s) {
        return;
    }
    state_ = s;
    if (s == client::state::connected) {
        attempts_ = 0;
    }
    announcer_.note(s);
}

void app_side::take_step(connection_event event) {
    const connection_step step = next_step(state_, event);
    switch (step.then) {
    case connection_step::action::start_attempt:
        request_connection(step.next);
        return;
    case connection_step::action::tear_down:
        request_disconnect();
        break;
    case connection_step::action::none:
        break;
    }
    set_state(step.next);
}

void app_side::request_connection(client::state next) {
    const connection_id id = next_after(last_connection_);
    auto requested = make_counted<connection_ctx>(*this, loop_, id, life());
    bridge_.post_to_uloop(requested->connect_task);
    last_connection_ = id;
    connection_id_ = id;
    connection_ = std::move(requested);
    set_state(next);
}

void app_side::request_disconnect() noexcept {
    const std::shared_ptr<connection_ctx> ending = std::move(connection_);
    if (!ending) {
        return;
    }
    connection_id_ = connection_id::none;
    ending->ending_life = life();
    bridge_.post_ready(ending->disconnect_task);
}

// --- requests of the application ---

/// With the lock held, while cancel() runs. A request from a handler that it calls is part of the
/// cancellation; one from any other thread is for afterwards.
void app_side::note_for_after_cancel(connection_event event) noexcept {
    if (canceller_ != std::this_thread::get_id()) {
        ended_connects_.more_after = event == connection_event::connect; // the last one counts
        ended_disconnects_.more_after =
            ended_disconnects_.more_after || event == connection_event::disconnect;
    }
}

/// One locked step: `waiting` waits with `others` for what `event` leads to. False when the state
/// is `reached` already, and there is nothing to wait for.
bool app_side::wait_for(connection_event event, client::state reached, pending_list& others,
                        report* waiting) {
    const lock_guard guard(lock_);
    if (!cancelling() && state_ == reached) {
        return false;
    }
    if (waiting) {
        waiting->asked_inside = teller_ == std::this_thread::get_id();
        others.add(*waiting);
    }
    if (cancelling()) {
        note_for_after_cancel(event);
        return true;
    }
    try {
        take_step(event);
    } catch (...) {
        if (waiting) {
            waiting->end();
        }
        throw;
    }
    return true;
}

utils::link app_side::ask_for(connection_event event, client::state reached, pending_list& others,
                              const client::completion_handler& handler) {
    disable_auto_connect();
    const std::shared_ptr<report> waiting =
        handler ? make_counted<report>(*this, handler) : nullptr;
    handover();
    if (!wait_for(event, reached, others, waiting.get())) {
        return report_later(handler, std::error_code());
    }
    handover();
    const utils::link link = waiting ? waiting->handle() : utils::link();
    try {
        announce();
    } catch (...) {
        utils::link(link).release();
        throw;
    }
    return link;
}

utils::link app_side::connect(const client::completion_handler& handler) {
    return ask_for(connection_event::connect, client::state::connected, connect_handlers_, handler);
}

utils::link app_side::disconnect(const client::completion_handler& handler) {
    return ask_for(connection_event::disconnect, client::state::disconnected, disconnect_handlers_,
                   handler);
}

utils::link app_side::auto_connect(const client::backoff_function& backoff) {
    disable_auto_connect();
    std::shared_ptr<reconnection> wanted;
    utils::link link;
    if (backoff) {
        wanted = make_counted<reconnection>();
        wanted->backoff = make_counted<client::backoff_function>(backoff);
        link.assign(
            misc::create_link(wanted, [this, only = wanted.get()] { disable_auto_connect(only); }));
    }
    handover();
    {
        backoff_ptr replaced; // destroyed outside the lock
        const lock_guard guard(lock_);
        replaced = end_reconnection(); // another thread's
        if (!cancelling()) {
            take_step(connection_event::connect);
        } else {
            note_for_after_cancel(connection_event::connect);
        }
        reconnection_ = std::move(wanted);
    }
    try {
        announce();
    } catch (...) {
        link.release();
        throw;
    }
    return link;
}

/// With the lock held: automatic reconnection is off, and its link inactive. Returns the function
/// for the caller to destroy.
app_side::backoff_ptr app_side::end_reconnection() noexcept {
    attempts_ = 0;
    retry_due_ = false;
    ++retry_changes_;
    backoff_ptr dropped = reconnection_ ? std::move(reconnection_->backoff) : nullptr;
    reconnection_.reset();
    return dropped;
}

void app_side::disable_auto_connect(const reconnection* only) {
    backoff_ptr dropped; // destroyed outside the lock
    {
        const lock_guard guard(lock_);
        if (only && only != reconnection_.get()) {
            return; // replaced meanwhile
        }
        dropped = end_reconnection();
    }
    adjust_timer();
}

/// Arms the timer or stops it, as is due. Its functions are the application's, and are called
/// without the lock: a thread that finds what is due changed by another one repeats the step.
void app_side::adjust_timer() {
    bool changed = true;
    while (changed) {
        std::shared_ptr<utils::event_loop::timer> timer;
        std::chrono::seconds delay{0};
        std::uint64_t seen = 0;
        {
            const lock_guard guard(lock_);
            timer = reconnect_timer_;
            delay = retry_due_ ? retry_delay_ : delay;
            seen = retry_changes_;
        }
        if (!timer) {
            return; // the client has been stopped
        }
        handover();
        if (delay == std::chrono::seconds(0)) {
            timer->stop();
        } else {
            timer->set_timeout(delay);
        }
        handover();
        const lock_guard guard(lock_);
        changed = seen != retry_changes_;
    }
}

// --- subscribers ---

utils::link app_side::notify_on_state_change(const client::state_handler& handler) {
    if (!handler) {
        return {};
    }
    const auto shared = make_counted<client::state_handler>(handler);
    const lock_guard guard(lock_);
    utils::link slot = state_changed_.connect([shared](client::state s) { (*shared)(s); });
    try {
        return aggregate_adapter<utils::link>(
            make_counted<state_subscription>(lock_, signal_, shared, slot));
    } catch (...) {
        slot.release();
        throw;
    }
}

void app_side::announce() {
    announcer_.announce([this](client::state s) {
        handover();
        tell_state(s);
    });
}

void app_side::tell_state(client::state s) {
    if (s == client::state::disconnected) {
        arm_reconnection();
    }
    state_signal subscribers;
    {
        const lock_guard guard(lock_);
        subscribers = state_changed_;
    }
    subscribers.call_impl<void>(s);
}

// --- automatic reconnection ---

void app_side::arm_reconnection() {
    backoff_ptr backoff;
    long long attempt = 0;
    {
        const lock_guard guard(lock_);
        if (!reconnection_ || !reconnect_timer_ || state_ != client::state::disconnected ||
            announcer_.is_behind()) {
            return; // switched off, stopped, or superseded by a change that is announced next
        }
        if (attempts_ < std::numeric_limits<long long>::max()) {
            ++attempts_;
        }
        attempt = attempts_;
        backoff = reconnection_->backoff;
    }
    const std::chrono::seconds delay = (*backoff)(attempt);
    {
        const lock_guard guard(lock_);
        if (!reconnection_ || reconnection_->backoff != backoff) {
            return; // switched off, or replaced, by the back-off function or another thread
        }
        if (delay < std::chrono::seconds(1)) {
            end_reconnection(); // `backoff` still owns the function
            return;
        }
        retry_due_ = true;
        retry_delay_ = delay;
        ++retry_changes_;
    }
    adjust_timer();
}

void app_side::reconnect() {
    bool failed = false;
    {
        const lock_guard guard(lock_);
        if (!retry_due_ || !reconnection_) {
            return; // switched off when the timer had already expired
        }
        retry_due_ = false;
        if (cancelling()) {
            return; // the end of the cancellation makes the attempt
        }
        try {
            take_step(connection_event::connect);
        } catch (const std::bad_alloc&) {
            failed = true;
        }
    }
    if (failed) {
        arm_reconnection(); // counts as one more failed attempt
        return;
    }
    announce();
}

// --- results from the loop thread ---

/// Reports the outcome to the waiting handlers, one at a time, so that one that releases another
/// one's link, or cancels, still prevents that one's report. Meant are the handlers that waited
/// when `before` was the newest, and with `insiders` those that have joined inside a handler since.
/// Others that have joined wait for the next outcome. When one throws, those behind it are dropped
/// with it: the outcome was theirs as well.
void app_side::tell_all(pending_list& waiting, pending_list::number before, bool insiders,
                        era since, const std::error_code& code) {
    pending_list::number last = before;
    if (insiders) {
        const lock_guard guard(lock_);
        last = waiting.newest();
    }
    const auto is_meant = [&](const pending& entry, pending_list::number number) {
        return number <= before ||
               (number <= last && static_cast<const report&>(entry).asked_inside);
    };
    const auto next = [&]() -> std::shared_ptr<report> {
        const lock_guard guard(lock_);
        return era_ == since ? std::static_pointer_cast<report>(waiting.take_oldest(is_meant))
                             : nullptr;
    };
    while (auto told = next()) {
        const client::completion_handler handler = told->take_handler();
        told.reset();
        handover();
        try {
            handler(code);
        } catch (...) {
            while (const auto dropped = next()) {
                dropped->take_handler();
            }
            throw;
        }
    }
}

/// With the lock held: the calling thread reports an outcome until the scope ends. The other
/// handlers that waited when it began are notified as well.
app_side::telling::telling(app_side& side)
    : connects(side.connect_handlers_.newest())
    , disconnects(side.disconnect_handlers_.newest())
    , since(side.era_)
    , side_(side)
    , outer_(std::exchange(side.teller_, std::this_thread::get_id())) {}

app_side::telling::~telling() {
    const lock_guard guard(side_.lock_);
    side_.teller_ = outer_;
}

void app_side::on_connect_result(connection_ctx& attempt) {
    assert_application_side();
    std::optional<telling> outcome;
    bool ending = false;
    {
        const lock_guard guard(lock_);
        if (attempt.life != life()) {
            return; // cancelled
        }
        outcome.emplace(*this);
        ending = state_ == client::state::disconnecting;
        (attempt.connected ? counts_.connections_made : counts_.attempts_failed).add();
        take_step(attempt.connected ? connection_event::made : connection_event::failed);
    }
    const std::error_code code =
        attempt.connected ? std::error_code() : make_error_code(error::generic::unknown_error);
    all_steps steps;
    steps.run([this] { announce(); });
    // With a tear-down under way, a connection requested from now on waits for the next attempt.
    steps.run(
        [&] { tell_all(connect_handlers_, outcome->connects, !ending, outcome->since, code); });
    if (!ending) {
        // A disconnection requested in these handlers was superseded; the tear-down goes on.
        steps.run([&] {
            tell_all(disconnect_handlers_, outcome->disconnects, true, outcome->since,
                     error::generic::aborted);
        });
    }
    steps.pass_on();
}

void app_side::on_lost(connection_ctx& connection) {
    assert_application_side();
    {
        const lock_guard guard(lock_);
        // A connection that is no longer the current one is being torn down, or has been.
        if (connection_.get() != &connection) {
            return;
        }
        counts_.connections_lost.add();
        take_step(connection_event::lost);
    }
    announce();
}

void app_side::on_torn_down(life_id reported_in) {
    std::optional<telling> outcome;
    std::error_code no_connection = error::generic::aborted;
    {
        const lock_guard guard(lock_);
        if (reported_in == life_id::none || reported_in != life()) {
            return; // cancelled
        }
        outcome.emplace(*this);
        try {
            // The attempt that a connect() has requested meanwhile begins before the handlers are
            // notified of the end, so that one that disconnects again finds an attempt to end.
            take_step(connection_event::torn_down);
        } catch (const std::bad_alloc&) {
            no_connection = error::generic::unknown_error;
            set_state(client::state::disconnected);
        }
        if (connection_) {
            no_connection.clear();
        }
    }
    all_steps steps;
    steps.run([this] { announce(); });
    steps.run(
        [&] { tell_all(disconnect_handlers_, outcome->disconnects, true, outcome->since, {}); });
    if (no_connection) {
        // A connection requested in these handlers was superseded; the attempt goes on.
        steps.run([&] {
            tell_all(connect_handlers_, outcome->connects, true, outcome->since, no_connection);
        });
    }
    steps.pass_on();
}

void app_side::on_disconnected(connection_ctx& connection) {
    assert_application_side();
    // A handler that throws must not strand the others, whose operations nothing else would end.
    all_steps steps;
    steps.run([&] { on_torn_down(connection.ending_life); });
    while (const auto request = connection.requests.take_oldest()) {
        steps.run([&] { request->on_connection_end(); });
    }
    for (const auto& entry : connection.objects) {
        std::shared_ptr<object_ctx> forgotten; // destroyed outside the lock
        const lock_guard guard(lock_);
        forgotten = forget(*entry.second);
    }
    connection.objects.clear();
    steps.pass_on();
}

} // namespace tarn
