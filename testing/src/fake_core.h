/// The inside of fake_client.
#pragma once

#include "tarn/testing/fake_client.h"

#include "client/connection_machine.h"
#include "client/state_announcer.h"
#include "fake_bus_core.h"
#include "transfer.h"
#include "waiting.h"
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace tarn::testing {

/// A state subscriber, and its link. A call that has begun when it is released runs to its end.
class subscriber final : public utils::link::impl {
public:
    explicit subscriber(client::state_handler handler)
        : handler_(std::make_shared<const client::state_handler>(std::move(handler))) {}

    /// Null once it is released.
    std::shared_ptr<const client::state_handler> handler() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return handler_;
    }

    void release() override {
        std::shared_ptr<const client::state_handler> dropped; // destroyed outside the lock
        const std::lock_guard<std::mutex> guard(lock_);
        dropped.swap(handler_);
    }
    bool active() const override { return handler() != nullptr; }

private:
    mutable std::mutex lock_;
    std::shared_ptr<const client::state_handler> handler_;
};

/// A handler that waits for a state of the connection.
class asked final : public waiting {
public:
    asked(const client::completion_handler& handler, std::uint64_t order, bool inside)
        : waiting(handler)
        , number(order)
        , asked_inside(inside) {}

    const std::uint64_t number; ///< they rise
    const bool asked_inside;    ///< by a handler or subscriber that is notified of an outcome
};

using asked_list = std::list<std::shared_ptr<asked>>;

/// A handler that waits for the loop to report what is known.
class known_report final : public waiting {
public:
    known_report(const client::completion_handler& handler, const std::error_code& outcome)
        : waiting(handler)
        , code(outcome) {}

    const std::error_code code;
};

/// A call that has not ended, and its link.
class waiting_call final : public utils::link::impl {
public:
    waiting_call(fake_client::call invoked, client::result_handler handler)
        : made(std::move(invoked))
        , handler_(std::move(handler)) {}

    const fake_client::call made;

    void limit_with(std::shared_ptr<utils::event_loop::timer> timer) {
        const std::lock_guard<std::mutex> guard(lock_);
        if (active_) {
            timer_.swap(timer);
        }
    }
    void tell(const std::list<blob::attr>& replies, const std::error_code& code) {
        if (const auto handler = take()) {
            handler(replies, code);
        }
    }

    void release() override { take(); }
    bool active() const override { return active_; }

private:
    client::result_handler take() {
        std::shared_ptr<utils::event_loop::timer> stopped; // destroyed outside the lock
        const std::lock_guard<std::mutex> guard(lock_);
        active_ = false;
        stopped.swap(timer_);
        return std::exchange(handler_, nullptr);
    }

    std::mutex lock_;
    std::atomic<bool> active_{true};
    client::result_handler handler_;
    std::shared_ptr<utils::event_loop::timer> timer_;
};

/// All that a fake client does. One lock guards it, never held while a handler runs.
class fake_client::core final : public std::enable_shared_from_this<core> {
public:
    explicit core(const std::shared_ptr<utils::event_loop>& loop);

    const std::shared_ptr<fake_bus::core>& rest() const { return rest_; }

    // --- fake_connection.cpp ---

    utils::link connect(const completion_handler& handler);
    utils::link auto_connect(const backoff_function& backoff);
    utils::link disconnect(const completion_handler& handler);
    utils::link notify_on_state_change(const state_handler& handler);
    void set_bus(bus found);
    void lose_connection();
    void cancel();
    /// The client is being destroyed: nothing that is queued runs any more, and what waits is
    /// destroyed with all that it owns.
    void close() noexcept;
    /// The exchange context of a call or notification that arrives on the present connection.
    std::shared_ptr<client::exchange_ctx> make_context(const std::shared_ptr<served_call>& served,
                                                       blob::table&& args);

    // --- fake_client.cpp ---

    void script(const std::string& path, const std::string& method, responder answer);
    void script_once(const std::string& path, const std::string& method, outcome what);
    utils::link invoke(call made, const result_handler& handler);
    utils::link add_object(const std::string& name, const method_map& methods,
                           const completion_handler& handler);
    utils::link del_object(const std::string& name, const completion_handler& handler);
    void refuse_objects(const std::error_code& status);
    std::shared_ptr<const served_call>
    call_published(const std::string& name, const std::string& method, const blob::table& args);

    std::vector<std::string> published() const;
    std::vector<call> calls() const;
    std::size_t pending_calls() const;
    std::vector<state> states() const;
    state get_state() const;
    const std::weak_ptr<utils::event_loop>& loop() const { return loop_; }

private:
    class exchange;
    class telling;
    using guard = std::lock_guard<std::mutex>;

    struct scripted {
        std::deque<outcome> next;
        responder always;
    };
    struct reconnection {
        backoff_function backoff;
    };

    std::shared_ptr<utils::event_loop> get_loop() const { return existing_loop(loop_); }
    /// Has the loop run `task`, which is not called when cancel() comes first.
    void post_locked(std::function<void()> task);
    /// Reports what the real client asks of the bus, which cancel() ends.
    utils::link report(const completion_handler& handler, const std::error_code& code);
    /// Reports what the real client knows, which cancel() reports as well.
    utils::link report_known(const completion_handler& handler, const std::error_code& code);
    template <class Report>
    utils::link report_among(std::list<std::shared_ptr<Report>>& others,
                             const std::shared_ptr<Report>& known, const std::error_code& code);
    utils::link wait_for(connection_event event, state reached, asked_list& others,
                         const completion_handler& handler);

    void take_step(connection_event event);
    void start_attempt();
    void end_attempt(bool made);
    void end_connection();
    void announce();
    void announce_or_release(utils::link& link);
    void tell_state(state reached);
    void arm_reconnection();
    void end_reconnection(const reconnection* only = nullptr);
    bool drop_all() noexcept;
    void tell_all(asked_list& others, std::uint64_t before, bool insiders, std::uint64_t life,
                  const std::error_code& code);

    std::string reached_path(const std::string& path) const;
    /// What a call ends with; nullopt where an object of our own is to serve it.
    std::optional<outcome> decide(const call& made);
    utils::link refuse(const result_handler& handler, const std::error_code& code);
    void deliver(const std::shared_ptr<waiting_call>& waiting);
    void end_calls(const std::error_code& code);
    void serve(const call& arrived, const std::shared_ptr<served_call>& served,
               const std::function<void()>& completed);

    const std::weak_ptr<utils::event_loop> loop_;
    const std::shared_ptr<fake_bus::core> rest_;

    mutable std::mutex lock_;
    std::uint64_t life_ = 0; ///< changes with every cancel()
    state state_ = state::disconnected;
    std::vector<state> states_{state::disconnected};
    state_announcer announcer_{lock_};
    std::thread::id teller_; ///< notifies handlers and subscribers of an outcome
    bool cancelling_ = false;
    std::list<std::shared_ptr<subscriber>> subscribers_;
    bus bus_ = bus::present;
    bool attempt_waits_ = false;
    std::uint64_t connection_ = 0; ///< changes with every connection
    bool is_carried_ = false; ///< there is an attempt or a connection that is not being torn down
    asked_list connects_;
    asked_list disconnects_;
    std::uint64_t newest_asked_ = 0;
    waiting_list reports_;
    std::list<std::shared_ptr<known_report>> known_;
    std::shared_ptr<reconnection> reconnection_;
    long long attempts_ = 0;
    std::shared_ptr<utils::event_loop::timer> timer_;

    std::map<std::pair<std::string, std::string>, scripted> script_;
    std::vector<call> made_;
    std::list<std::shared_ptr<waiting_call>> calls_;
    std::map<std::string, method_map> objects_;
    std::error_code refusal_;
};

} // namespace tarn::testing
