/// The application's side of the connection: the state machine, its waiting handlers, automatic
/// reconnection and cancel().
#include "client/client_impl.h"

#include "tarn/error.h"

#include <exception>
#include <limits>
#include <new>
#include <utility>

namespace tarn {

namespace {

using tarn::misc::aggregate_adapter;

/// A subscription to state changes. Shares the handler with its slot, so that the application's
/// captures are destroyed outside the lock.
class state_subscription final : public utils::link::impl {
public:
    state_subscription(std::mutex& lock, std::shared_ptr<client::state_handler> handler,
                       const utils::link& slot)
        : lock_(lock)
        , handler_(std::move(handler))
        , slot_(slot) {}

    void release() override {
        std::shared_ptr<client::state_handler> dropped;
        const std::lock_guard<std::mutex> guard(lock_);
        slot_.release();
        dropped.swap(handler_);
    }

    bool active() const override { return slot_.active(); }

private:
    std::mutex& lock_; ///< the client's, which is never destroyed
    std::shared_ptr<client::state_handler> handler_;
    utils::link slot_;
};

} // namespace

client::state client_impl::get_state() const {
    return state_;
}

bool client_impl::is_active() const {
    return get_state() == state::connected;
}

utils::link client_impl::notify_on_state_change(const state_handler& handler) {
    if (!handler) {
        return {};
    }
    const auto shared = std::make_shared<state_handler>(handler);
    const std::lock_guard<std::mutex> guard(state_lock_);
    utils::link slot = state_changed_.connect([shared](state s) { (*shared)(s); });
    try {
        return aggregate_adapter<utils::link>(
            std::make_shared<state_subscription>(state_lock_, shared, slot));
    } catch (...) {
        slot.release();
        throw;
    }
}

utils::link client_impl::subscribe(pending_handlers& waiting, const completion_handler& handler) {
    const ticket entry = waiting.add(handler);
    try {
        return waiting.link_to(entry);
    } catch (...) {
        waiting.take(entry);
        throw;
    }
}

utils::link client_impl::connect(const completion_handler& handler) {
    disable_auto_connect();
    if (get_tracker().expired()) {
        return subscribe(connect_handlers_, handler);
    }
    if (is_active()) {
        return report_later(handler, std::error_code());
    }
    utils::link pending = subscribe(connect_handlers_, handler);
    try {
        connect_impl();
    } catch (...) {
        pending.release();
        throw;
    }
    return pending;
}

utils::link client_impl::disconnect(const completion_handler& handler) {
    disable_auto_connect();
    if (get_tracker().expired()) {
        return subscribe(disconnect_handlers_, handler);
    }
    const state current = get_state();
    if (current == state::disconnected) {
        return report_later(handler, std::error_code());
    }
    utils::link pending = subscribe(disconnect_handlers_, handler);
    try {
        if (current == state::connecting) {
            on_state_change(state::disconnecting);
        } else if (current == state::connected) {
            request_disconnect();
        }
    } catch (...) {
        pending.release();
        throw;
    }
    return pending;
}

utils::link client_impl::auto_connect(const backoff_function& backoff) {
    disable_auto_connect();
    utils::link active;
    if (backoff) {
        auto stored = std::make_shared<reconnection>();
        stored->backoff = std::make_shared<const backoff_function>(backoff);
        active.assign(misc::create_link(stored, [this] { disable_auto_connect(); }));
        const std::lock_guard<std::mutex> guard(state_lock_);
        reconnection_ = std::move(stored);
    }
    try {
        connect_impl();
    } catch (...) {
        active.release();
        throw;
    }
    return active;
}

void client_impl::disable_auto_connect() {
    std::shared_ptr<const backoff_function> dropped; // destroyed outside the lock
    std::shared_ptr<utils::event_loop::timer> timer;
    {
        const std::lock_guard<std::mutex> guard(state_lock_);
        attempts_ = 0;
        if (reconnection_) {
            dropped.swap(reconnection_->backoff);
            reconnection_.reset();
        }
        if (life_token_) {
            timer = reconnect_timer_;
        }
    }
    // After the back-off is gone: whoever arms the timer meanwhile looks for it again afterwards.
    if (timer) {
        timer->stop();
    }
}

void client_impl::connect_impl() {
    if (get_tracker().expired()) {
        return;
    }
    switch (get_state()) {
    case state::connected:
    case state::connecting:
        break;
    case state::disconnecting:
        on_state_change(state::connecting);
        break;
    case state::disconnected:
        request_connection();
        break;
    }
}

void client_impl::reconnect() {
    try {
        connect_impl();
    } catch (const std::bad_alloc&) {
        arm_reconnection(); // one more attempt that has failed
    }
}

void client_impl::request_connection() {
    auto tracker = get_tracker();
    if (tracker.expired()) {
        return;
    }
    const std::shared_ptr<void> token = std::make_shared<char>('\0');
    const std::weak_ptr<void> connection = token;
    uloop::ready_task teardown;
    // Keeps the token until the connection is closed: answers given before a disconnection was
    // asked for stand in front of it in the loop thread's queue and still belong to a connection.
    teardown.emplace_back([this, tracker, token] { disconnect_sync(tracker); });
    {
        const std::lock_guard<std::mutex> guard(state_lock_);
        connection_token_ = token;
        teardown_.swap(teardown);
    }
    // Both the report and the task that carries it are tied: an attempt that cancel() has overtaken
    // says nothing, wherever it has got to.
    const auto result = misc::tie_handler(
        [this](state s, const std::error_code& code) { on_connect_result(s, code); }, tracker);
    // A std::function already here, so that the loop thread need not make one.
    const std::function<void(state, const std::error_code&)> report =
        [this, result, tracker](state s, const std::error_code& code) {
            post_from_uloop(misc::tie_handler([result, s, code] { result(s, code); }, tracker));
        };
    // The state moves before the request is on its way, since the result may overtake a caller that
    // is not on the application's loop; subscribers hear of it when the request cannot fail any
    // more.
    const state before = state_.exchange(state::connecting);
    try {
        post_to_uloop([this, connection, report] { connect_sync(connection, report); });
    } catch (...) {
        state_ = before;
        const std::lock_guard<std::mutex> guard(state_lock_);
        connection_token_.reset();
        teardown_.clear();
        throw;
    }
    if (before != state::connecting) {
        announce(state::connecting);
    }
}

void client_impl::request_disconnect() {
    request_disconnect(connection_tracker());
}

void client_impl::request_disconnect(const std::weak_ptr<void>& connection) {
    uloop::ready_task teardown;
    {
        const std::lock_guard<std::mutex> guard(state_lock_);
        if (!connection_token_ || connection_token_ != connection.lock()) {
            return;
        }
        connection_token_.reset();
        teardown.swap(teardown_);
    }
    state before = get_state();
    while (before != state::disconnected &&
           !state_.compare_exchange_weak(before, state::disconnecting)) {}
    post_ready(std::move(teardown));
    if (before != state::disconnected && before != state::disconnecting) {
        announce(state::disconnecting);
    }
}

void client_impl::on_connect_result(state reported, const std::error_code& code) {
    const state current = get_state();
    // Subscribers and handlers called below may ask for the next connection or disconnection; what
    // they subscribe then waits for that one's outcome.
    const auto waiting = connect_handlers_.newest();
    const auto overtaken = disconnect_handlers_.newest();
    if (current == state::disconnecting) {
        // The attempt's end is what the disconnection was waiting for.
        try {
            tell(connect_handlers_, waiting, code);
        } catch (...) {
            request_disconnect();
            throw;
        }
        request_disconnect();
        return;
    }
    on_state_change(current == state::connecting ? reported : current);
    tell(connect_handlers_, waiting, code);
    tell(disconnect_handlers_, overtaken, error::generic::aborted);
}

void client_impl::on_disconnected(
    const std::weak_ptr<void>& tracker, const request_table::entries& dropped,
    const std::map<ubus_object*, std::shared_ptr<ubus_object_ctx>>& withdrawn) {
    // A handler that throws must not strand the others, whose operations nobody else would end.
    std::exception_ptr thrown;
    const auto guarded = [&thrown](const auto& step) {
        try {
            step();
        } catch (...) {
            thrown = thrown ? thrown : std::current_exception();
        }
    };
    if (!tracker.expired()) {
        guarded([this] { on_torn_down(); });
    }
    for (const auto& entry : dropped) {
        guarded([&] {
            const auto ended = invokes_.take(entry.first);
            if (ended && ended->handler) {
                ended->handler({}, error::msg::connection_failed);
            }
        });
    }
    for (const auto& entry : withdrawn) {
        objects_.take(entry.first);
    }
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

void client_impl::on_torn_down() {
    const state current = get_state();
    const auto waiting = disconnect_handlers_.newest();
    const auto overtaken = connect_handlers_.newest();
    bool reconnecting = current == state::connecting;
    std::error_code no_connection = error::generic::aborted;
    if (reconnecting) {
        // Before the handlers, so that one that disconnects again finds an attempt to end.
        try {
            request_connection();
        } catch (const std::bad_alloc&) {
            reconnecting = false;
            no_connection = error::generic::unknown_error;
        }
    }
    if (!reconnecting) {
        on_state_change(current == state::connected ? current : state::disconnected);
    }
    tell(disconnect_handlers_, waiting, {});
    if (!reconnecting) {
        tell(connect_handlers_, overtaken, no_connection);
    }
}

void client_impl::tell(pending_handlers& waiting, pending_handlers::number last,
                       const std::error_code& code) {
    while (const auto handler = waiting.take_oldest(last)) {
        handler(code);
    }
}

void client_impl::on_req_done(pending_handlers& waiting, state s, const std::error_code& code) {
    on_state_change(s);
    tell(waiting, waiting.newest(), code);
}

void client_impl::on_state_change(state s) {
    if (state_.exchange(s) != s) {
        announce(s);
    }
}

void client_impl::announce(state s) {
    if (s == state::connected) {
        const std::lock_guard<std::mutex> guard(state_lock_);
        attempts_ = 0;
    } else if (s == state::disconnected) {
        arm_reconnection();
    }
    state_signal subscribers;
    {
        const std::lock_guard<std::mutex> guard(state_lock_);
        subscribers = state_changed_;
    }
    subscribers.call_impl<void>(s);
}

void client_impl::arm_reconnection() {
    std::shared_ptr<const backoff_function> backoff;
    std::shared_ptr<utils::event_loop::timer> timer;
    long long attempt = 0;
    {
        const std::lock_guard<std::mutex> guard(state_lock_);
        if (!reconnection_ || !reconnect_timer_) {
            return; // switched off, or the client has been stopped
        }
        if (attempts_ < std::numeric_limits<long long>::max()) {
            ++attempts_;
        }
        attempt = attempts_;
        backoff = reconnection_->backoff;
        timer = reconnect_timer_;
    }
    const auto still_wanted = [this, &backoff] {
        const std::lock_guard<std::mutex> guard(state_lock_);
        return reconnection_ && reconnection_->backoff == backoff;
    };
    const std::chrono::seconds delay = (*backoff)(attempt);
    if (!still_wanted()) {
        return; // switched off, or replaced, by the back-off function itself or another thread
    }
    if (delay < std::chrono::seconds(1)) {
        disable_auto_connect();
        return;
    }
    timer->set_timeout(delay);
    if (!still_wanted()) {
        timer->stop();
    }
}

void client_impl::cancel() {
    auto next_life = std::make_shared<char>('\0');
    disable_auto_connect();
    {
        std::shared_ptr<void> life;
        const std::lock_guard<std::mutex> guard(state_lock_);
        life.swap(life_token_);
    }
    request_disconnect();
    objects_.deactivate_all();
    {
        const std::lock_guard<std::mutex> guard(delivery_lock_);
        delivery_waits_ = true;
    }
    // One at a time, so that a handler that releases another operation's link still prevents that
    // one's report.
    while (const auto ended = invokes_.take_any()) {
        if (ended->handler) {
            ended->handler({}, error::generic::aborted);
        }
    }
    for (auto* handlers : {&add_handlers_, &del_handlers_, &send_handlers_}) {
        while (const auto handler = handlers->take_oldest()) {
            handler(error::generic::aborted);
        }
    }
    process_task_queue();
    on_req_done(disconnect_handlers_, state::disconnected, {});
    on_req_done(connect_handlers_, state::disconnected, error::generic::aborted);
    {
        // Both at once: a client that is stopped meanwhile must not come to life again.
        const std::lock_guard<std::mutex> delivery_guard(delivery_lock_);
        if (stopped_) {
            return;
        }
        const std::lock_guard<std::mutex> guard(state_lock_);
        life_token_ = std::move(next_life);
    }
    {
        // One that was requested before is tied to the former life.
        const std::lock_guard<std::mutex> guard(task_lock_);
        drain_requested_ = true;
    }
    post_drain();
}

} // namespace tarn
