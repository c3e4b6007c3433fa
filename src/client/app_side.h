/// The application's side of the client: what is pending, what is published, and the connection's
/// state, for all threads of the application.
#pragma once

#include "client/connection_ctx.h"
#include "client/connection_machine.h"
#include "client/counters.h"
#include "client/identity.h"
#include "client/invoke_ctx.h"
#include "client/object_ctx.h"
#include "client/object_operation.h"
#include "client/pending.h"
#include "client/report.h"
#include "client/served_call.h"
#include "client/side.h"
#include "client/state_announcer.h"
#include "client/task_bridge.h"
#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/misc.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace tarn {

class one_shot;
class standing;

/// Any thread calls the operations. Results come back on the application's loop, and what follows
/// from them is never done on the loop thread.
///
/// One lock guards everything. Each change is one locked step: what it reads, what it decides, what
/// it changes in the tables and what it posts to the loop thread are complete when the lock is
/// released. So concurrent operations are serialized, in the same order on both sides. With the
/// lock held nothing of the application is called or destroyed, except its loop's post(), and the
/// only locks that are taken are the bridge's and, behind that, the loop's.
class app_side {
public:
    app_side(task_bridge& bridge, loop_side& loop);
    app_side(const app_side&) = delete;
    app_side& operator=(const app_side&) = delete;
    ~app_side() = default;

    /// Makes the timer for reconnection. Throws when the application's loop is gone.
    void make_timer();
    void set_timer_handler();
    /// Drops everything that is pending without a report. The loop thread has ended.
    void drop_all() noexcept;

    // --- app_connection.cpp ---

    utils::link connect(const client::completion_handler& handler);
    utils::link auto_connect(const client::backoff_function& backoff);
    utils::link disconnect(const client::completion_handler& handler);
    utils::link notify_on_state_change(const client::state_handler& handler);
    client::state get_state() const { return state_; }
    /// The connection that incoming calls and notifications can be answered on; none without one.
    /// Also one that is being reported: a subscription is restored before that, and what it
    /// receives meanwhile is to be answered.
    connection_id open_connection() const {
        const client::state now = state_;
        return now == client::state::connected || now == client::state::connecting
                   ? connection_id_.load()
                   : connection_id::none;
    }

    void on_connect_result(connection_ctx& attempt);
    void on_lost(connection_ctx& connection);
    void on_disconnected(connection_ctx& connection);

    // --- app_cancel.cpp ---

    void cancel();

    // --- app_calls.cpp ---

    utils::link invoke(const std::string& path, const std::string& method,
                       const std::multimap<std::string, blob::attr>& args,
                       const std::shared_ptr<const client::reply_handler>& each,
                       const client::result_handler& handler, const std::chrono::seconds& timeout);
    /// The same of the object with this id.
    utils::link invoke_object(std::uint32_t object, const std::string& path,
                              const std::string& method,
                              const std::multimap<std::string, blob::attr>& args,
                              const std::shared_ptr<const client::reply_handler>& each,
                              const client::result_handler& handler,
                              const std::chrono::seconds& timeout);
    void end_invoke(invoke_ctx& call, const std::error_code& code);
    void tell_reply(invoke_ctx& call, const blob::attr& reply);
    void complete_invoke(invoke_ctx& call);
    void drop_invoke(invoke_ctx& call) noexcept;
    void cancel_invoke(invoke_ctx& call) noexcept;

    // --- app_objects.cpp ---

    utils::link add_object(const std::string& name, const client::method_map& methods,
                           const client::completion_handler& handler);
    utils::link del_object(const std::string& name, bool stop_serving,
                           const client::completion_handler& handler);
    void complete_addition(object_operation& addition, bool reported);
    void complete_removal(object_operation& removal, bool reported);

    // --- app_serving.cpp ---

    void dispatch_call(served_call& call);
    void drop_call(served_call& call) noexcept;
    void complete_call(served_call& call, const std::error_code& status) noexcept;
    /// Sends a reply of a call that is being served.
    utils::link send(const std::shared_ptr<served_call>& call,
                     std::multimap<std::string, blob::attr>&& data,
                     const client::completion_handler& handler);

    // --- app_bus.cpp ---

    utils::link begin(standing& operation);
    utils::link begin(one_shot& operation, const std::chrono::seconds& limit = {});
    utils::link refuse(one_shot& operation, const std::error_code& code);
    utils::link send_event(const std::string& id, const bus::table& data,
                           const bus::completion_handler& handler);
    void end(one_shot& operation, const std::error_code& code);
    void complete(one_shot& operation);
    void drop(one_shot& operation) noexcept;
    void give_up(one_shot& operation) noexcept;

    // --- reports ---

    /// Ends a report whose link was released.
    void give_up(report& waiting) noexcept;
    /// Ends a report and calls its handler, unless it has ended.
    void tell(report& waiting, const std::error_code& code);
    /// Has `handler` called with `code` on the application's loop, never inside this call.
    utils::link report_later(const client::completion_handler& handler,
                             const std::error_code& code);

    task_bridge& bridge() { return bridge_; }
    counters& counts() { return counts_; }

private:
    using state_signal = misc::signal<void, client::state>;
    using lock_guard = std::lock_guard<std::mutex>;
    /// Changes whenever cancel() begins (to an odd one) and when it has ended everything. Code that
    /// calls a handler in the middle of an operation checks afterwards that it is still the same.
    using era = std::uint64_t;

    using backoff_ptr = std::shared_ptr<const client::backoff_function>;

    /// Automatic reconnection while it is on. Its link watches this object, so its one owner is the
    /// client, and it ends under the lock; the function is shared, to be called outside.
    struct reconnection {
        backoff_ptr backoff;
    };

    /// One call of cancel(). Several at once share an era.
    struct cancellation {
        era since;
        std::uint64_t number;
    };

    /// The waiting handlers of one kind that cancel() ends and notifies.
    struct ended_by_cancel {
        pending_list::number newest = 0;
        bool more_after = false; ///< another thread has requested the operation since
    };

    /// The reporting of one outcome of the connection.
    class telling {
    public:
        explicit telling(app_side& side);
        ~telling();
        telling(const telling&) = delete;
        telling& operator=(const telling&) = delete;

        // The newest handlers that waited when it began.
        const pending_list::number connects;
        const pending_list::number disconnects;
        const era since;

    private:
        app_side& side_;
        const std::thread::id outer_;
    };

    /// The current life; none while cancel() runs.
    life_id life() const noexcept { return bridge_.life(); }
    bool cancelling() const noexcept { return life() == life_id::none; }

    void disable_auto_connect(const reconnection* only = nullptr);
    backoff_ptr end_reconnection() noexcept;
    void adjust_timer();
    void take_step(connection_event event);
    void set_state(client::state s) noexcept;
    void request_connection(client::state next);
    void request_disconnect() noexcept;
    void announce();
    void tell_state(client::state s);
    void arm_reconnection();
    void reconnect();
    bool wait_for(connection_event event, client::state reached, pending_list& others,
                  report* waiting);
    void note_for_after_cancel(connection_event event) noexcept;
    utils::link ask_for(connection_event event, client::state reached, pending_list& others,
                        const client::completion_handler& handler);
    void tell_all(pending_list& waiting, pending_list::number before, bool insiders, era since,
                  const std::error_code& code);
    void tell_everybody(pending_list& waiting, era since, const std::error_code& code);
    void on_torn_down(life_id reported_in);
    void tell_invoke(const std::shared_ptr<pending>& ended, const std::error_code& code);
    void count_ended(const invoke_ctx& call, const std::error_code& code) noexcept;
    void expire(const std::weak_ptr<one_shot>& watched);
    void abort_one_shots(era since);
    cancellation begin_cancel();
    bool end_cancel(const cancellation& ending);
    void do_after_cancel();
    std::shared_ptr<pending> take_oldest(pending_list& waiting, era since);
    std::shared_ptr<pending> take_oldest(pending_list& waiting, pending_list::number newest,
                                         era since);
    bool begin_call(invoke_ctx& call);
    bool begin_limited_call(invoke_ctx& call, const std::chrono::seconds& timeout);
    std::shared_ptr<pending> end(pending& entry) noexcept;
    void expire_invoke(const std::weak_ptr<invoke_ctx>& watched);
    std::shared_ptr<object_ctx> find_object(const std::string& name) const;
    std::error_code begin_addition(const std::shared_ptr<object_ctx>& object,
                                   object_operation& addition);
    std::error_code begin_removal(const std::string& name, object_operation& removal);
    std::shared_ptr<object_ctx> forget(const ubus_object_ctx& records) noexcept;
    void complete(object_operation& operation, bool forgotten, bool reported);

    task_bridge& bridge_;
    loop_side& loop_;
    counters counts_;

    mutable std::mutex lock_; ///< guards the members below

    // Written with the lock held; read without.
    std::atomic<client::state> state_{client::state::disconnected};
    std::atomic<connection_id> connection_id_{connection_id::none};

    /// Present while there is a connection, or an attempt at one, to tear down.
    std::shared_ptr<connection_ctx> connection_;
    connection_id last_connection_ = connection_id::none;

    state_signal state_changed_;
    unsigned signal_ = 0; ///< which one that is: the end of the client begins another
    state_announcer announcer_{lock_};
    pending_list connect_handlers_;
    pending_list disconnect_handlers_;
    std::thread::id teller_; ///< the thread that is reporting an outcome of the connection

    std::shared_ptr<reconnection> reconnection_;
    long long attempts_ = 0;              ///< consecutive automatic attempts; saturates
    bool retry_due_ = false;              ///< the timer is to be armed
    std::chrono::seconds retry_delay_{0}; ///< if so, for so long
    std::uint64_t retry_changes_ = 0;     ///< of the two above
    std::shared_ptr<utils::event_loop::timer> reconnect_timer_;

    pending_list invokes_;
    std::map<ubus_object*, std::shared_ptr<object_ctx>> objects_;
    pending_list add_handlers_;
    pending_list del_handlers_;
    pending_list send_handlers_;
    pending_list one_shots_;

    era era_ = 0;
    std::uint64_t newest_cancel_ = 0;
    std::thread::id canceller_; ///< the thread that began the newest cancellation
    ended_by_cancel ended_connects_;
    ended_by_cancel ended_disconnects_;
};

} // namespace tarn
