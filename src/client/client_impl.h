/// The one implementation of tarn::client.
///
/// Two sides meet in it. The application's side (any application thread, and the application's
/// loop) keeps the tables of what is pending, the connection state and the handlers. The loop
/// thread's side keeps the libubus connection and the records that libubus works on. They talk
/// only through posted tasks: post_to_uloop() one way, post_from_uloop() the other.
///
/// The state machine, on the application's side:
///
///     disconnected --connect--> connecting --result ok--> connected
///          ^                     |   ^                     |
///          |     result failed   |   | connect             | disconnect, connection lost
///          +---------------------+   |                     v
///          |                         +------------- disconnecting
///          +------------ completion ------------------------+
///
/// disconnect while connecting only moves the state to disconnecting: the attempt runs to its end,
/// and its result starts the tear-down. connect while disconnecting likewise: the tear-down's
/// completion starts the new attempt.
#pragma once

#include "bus.h"
#include "client/bus_context.h"
#include "client/invoke_ctx.h"
#include "client/object_ctx.h"
#include "client/pending_handlers.h"
#include "client/request_table.h"
#include "tarn/client.h"
#include "tarn/misc.h"
#include "tarn/uloop.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <sys/types.h>
#include <thread>
#include <utility>

namespace tarn {

class client_impl final : public client {
public:
    class exchange_ctx;

    /// The process's instance. It is never destroyed, only stopped by the exit handlers: other
    /// threads may still be inside it, or call it, while the process ends.
    static client_impl& get_instance(const std::weak_ptr<utils::event_loop>& loop);

    /// The ubus status for a code, for libubus to send: codes of other categories, and the
    /// conditions that concern only this process (no_memory, parse_error, system_error), become 9.
    static int to_ubus_msg_status(const std::error_code& code);

    /// The code for a status that libubus reported; numbers it does not know become unknown_error.
    static std::error_code to_msg_error(int status);

    client_impl(const client_impl&) = delete;
    client_impl& operator=(const client_impl&) = delete;

    utils::link connect(const completion_handler& handler) override;
    utils::link auto_connect(const backoff_function& backoff) override;
    utils::link disconnect(const completion_handler& handler) override;
    utils::link notify_on_state_change(const state_handler& handler) override;
    state get_state() const override;
    bool is_active() const override;
    utils::link invoke(const std::string& path, const std::string& method,
                       const std::multimap<std::string, blob::attr>& args,
                       const result_handler& handler, const std::chrono::seconds& timeout) override;
    utils::link add_object(const std::string& name, const method_map& methods,
                           const completion_handler& handler) override;
    utils::link del_object(const std::string& name, bool stop_serving,
                           const completion_handler& handler) override;
    void cancel() override;
    utils::link invoke_each(const std::string& path, const std::string& method,
                            const std::multimap<std::string, blob::attr>& args,
                            const reply_handler& each, const completion_handler& handler,
                            const std::chrono::seconds& timeout) override;

private:
    using state_signal = misc::signal<void, state>;
    using ticket = pending_handlers::ticket;
    using memory_reserve = std::array<char, 16384>;

    /// Automatic reconnection while it is on. Its link watches this object, so its one owner is
    /// the client, and it ends under state_lock_; the function is shared, to be called outside.
    struct reconnection {
        std::shared_ptr<const backoff_function> backoff;
    };

    explicit client_impl(const std::weak_ptr<utils::event_loop>& loop);
    ~client_impl() override = default;

    // instance.cpp
    void start_loop_thread();
    void stop() noexcept;
    std::shared_ptr<utils::event_loop> get_eloop() const;

    // dispatch.cpp: the traffic between the two sides
    void post(const std::function<void()>& task);
    void post_to_uloop(std::function<void()>&& task);
    void post_ready(uloop::ready_task task) noexcept;
    template <class Task>
    void post_from_uloop(Task task);
    void queue_from_uloop(std::function<void()>&& task);
    template <class Work>
    void with_reserve(const Work& work);
    void schedule_task(std::function<void()>&& task);
    void request_drain();
    void post_drain();
    void process_task_queue();
    std::weak_ptr<void> get_tracker() const;
    std::weak_ptr<void> connection_tracker() const;
    template <class Handler, class... Args>
    utils::link report_later(const Handler& handler, const Args&... args);

    // connection.cpp: the application's side of the connection
    void disable_auto_connect();
    void connect_impl();
    void reconnect();
    void request_connection();
    void request_disconnect();
    void request_disconnect(const std::weak_ptr<void>& connection);
    void on_connect_result(state reported, const std::error_code& code);
    void on_disconnected(const std::weak_ptr<void>& tracker, const request_table::entries& dropped,
                         const std::map<ubus_object*, std::shared_ptr<ubus_object_ctx>>& withdrawn);
    void on_torn_down();
    void on_state_change(state s);
    void announce(state s);
    void arm_reconnection();
    void on_req_done(pending_handlers& waiting, state s, const std::error_code& code);
    static void tell(pending_handlers& waiting, pending_handlers::number last,
                     const std::error_code& code);
    static utils::link subscribe(pending_handlers& waiting, const completion_handler& handler);

    // bus_connection.cpp: the loop thread's side of the connection
    void connect_sync(const std::weak_ptr<void>& connection,
                      const std::function<void(state, const std::error_code&)>& report);
    void disconnect_sync(const std::weak_ptr<void>& tracker);
    void on_connection_lost(ubus_context* context);
    void release_bus();
    static void connection_lost_handler(ubus_context* context);
    /// The connection if calls can go out on it, else null.
    ubus_context* usable_bus() const;
    /// The same for a request whose answer libubus awaits without a limit: takes in first what has
    /// arrived. While its queue for this process is full the daemon drops its own answers too; it
    /// makes room there before it reads a request.
    ubus_context* caught_up_bus() const;
    void end_unwritable_bus() const;

    // invoke.cpp
    utils::link start_invoke(const std::string& path, const std::string& method,
                             const std::multimap<std::string, blob::attr>& args,
                             const std::shared_ptr<const reply_handler>& each,
                             const result_handler& handler, const std::chrono::seconds& timeout);
    void on_reply(const std::shared_ptr<ubus_request>& request, std::list<blob::attr>&& reply,
                  const std::error_code& status);
    void invoke_sync(const std::string& path, const std::string& method,
                     const std::multimap<std::string, blob::attr>& args,
                     const std::shared_ptr<ubus_request>& request, std::weak_ptr<invoke_ctx>& ctx);
    std::error_code start_request(const std::string& path, const std::string& method,
                                  const std::multimap<std::string, blob::attr>& args,
                                  const std::shared_ptr<ubus_request>& request);
    void expire_invoke(const std::shared_ptr<ubus_request>& request,
                       const std::weak_ptr<invoke_ctx>& ctx);
    void cancel_invoke(const std::shared_ptr<ubus_request>& request,
                       const std::weak_ptr<invoke_ctx>& ctx);
    void abort_later(const std::shared_ptr<ubus_request>& request) noexcept;
    void abort_sync(const std::shared_ptr<ubus_request>& request);
    static void invoke_req_data_handler(ubus_request* request, int type, blob_attr* msg);
    static void invoke_req_done_handler(ubus_request* request, int status);

    // objects.cpp
    void add_object_sync(const std::weak_ptr<object_ctx>& object, const ticket& entry);
    std::error_code register_object(ubus_context* bus,
                                    const std::shared_ptr<ubus_object_ctx>& records);
    void del_object_sync(std::shared_ptr<object_ctx> object, bool stop_serving,
                         const ticket& entry);
    std::error_code unregister_object(const std::shared_ptr<ubus_object_ctx>& records,
                                      bool stop_serving);
    static void refuse_waiting_calls(ubus_context* bus, ubus_object_ctx& records);
    int on_call(ubus_object* object, ubus_request_data* request, const char* method,
                blob_attr* msg);
    void dispatch_call(const std::string& method, const std::shared_ptr<incoming_call>& call,
                       std::multimap<std::string, blob::attr>& args,
                       const std::shared_ptr<ubus_object_ctx>& records);
    void complete_call(const std::shared_ptr<incoming_call>& call, const std::error_code& status,
                       const std::weak_ptr<void>& connection,
                       const std::shared_ptr<ubus_object_ctx>& refused_by = nullptr) noexcept;
    void complete_sync(const call_completion& completion);
    std::shared_ptr<incoming_call> make_call(const ubus_request_data& request,
                                             ubus_object_ctx& records);
    void send_sync(const std::weak_ptr<void>& connection,
                   const std::shared_ptr<ubus_request_data>& request,
                   const std::multimap<std::string, blob::attr>& data, const ticket& entry);
    static int method_callable(ubus_context* context, ubus_object* object,
                               ubus_request_data* request, const char* method, blob_attr* msg);

    const std::string prefix_;
    const std::weak_ptr<utils::event_loop> loop_;
    std::atomic<state> state_{state::disconnected};

    /// Guards the members down to reconnect_timer_. Held for a few instructions only: neither a
    /// handler nor the application's loop is ever called with it.
    mutable std::mutex state_lock_;
    state_signal state_changed_;
    std::shared_ptr<reconnection> reconnection_;
    long long attempts_ = 0; ///< consecutive automatic attempts; saturates
    /// Present while there is a connection, or an attempt at one, to tear down. What belongs to an
    /// earlier connection is tied to that one's token and falls silent with it: when that
    /// connection is closed.
    std::shared_ptr<void> connection_token_;
    /// Ends that connection; made with it, so that no shortage of memory keeps a lost one alive.
    uloop::ready_task teardown_;
    /// Every task handed to the application's loop is tied to it; null while cancel() runs and
    /// after the end.
    std::shared_ptr<void> life_token_;
    std::shared_ptr<utils::event_loop::timer> reconnect_timer_;

    std::mutex task_lock_; ///< guards the two below; nothing else is locked while it is held
    /// A list, since taking it whole must not allocate: a drain that fails is not asked for again.
    std::list<std::function<void()>> task_queue_;
    bool drain_requested_ = false; ///< the application's loop has been asked to empty the queue

    invoke_table invokes_;
    object_table objects_;
    pending_handlers connect_handlers_;
    pending_handlers disconnect_handlers_;
    pending_handlers add_handlers_;
    pending_handlers del_handlers_;
    pending_handlers send_handlers_;

    /// Guards delivery_waits_ and stopped_. The application's
    /// event_loop::post is called with it held, so that clearing the flag and asking for the drain
    /// are one step.
    std::mutex delivery_lock_;
    bool delivery_waits_ = true; ///< results wait for the application's next request
    bool stopped_ = false;       ///< the loop thread is gone or going: nothing more may be posted

    // The loop thread's side: touched by no other thread.
    bus_context_ptr bus_;
    /// A connection that was lost while libubus functions still used it, until they have returned.
    bus_context_ptr lost_bus_;
    std::weak_ptr<void> bus_token_; ///< the connection token that bus_ belongs to
    /// The requests that libubus works on.
    request_table requests_;
    /// The objects registered with libubus.
    std::map<ubus_object*, std::shared_ptr<ubus_object_ctx>> ubus_objects_;
    /// Records of objects that libubus may still know although (de)registering them failed.
    std::list<std::shared_ptr<ubus_object_ctx>> retired_objects_;

    /// Given up when memory runs out on the loop thread, so that it can still report: there nobody
    /// could catch the exception.
    std::unique_ptr<memory_reserve> reserve_ = std::make_unique<memory_reserve>();

    uloop::ready_task last_task_; ///< ends the loop thread
    std::promise<void> loop_ended_;
    std::thread loop_thread_;
    const pid_t owner_; ///< the process whose loop thread this is; a forked child has none
};

/// Does `work`, on the loop thread, and once more with the reserve given up when memory runs out.
/// `work` must have done nothing when it fails. The reserve is taken anew when there is memory.
template <class Work>
void client_impl::with_reserve(const Work& work) {
    if (!reserve_) {
        reserve_.reset(new (std::nothrow) memory_reserve);
    }
    try {
        work();
    } catch (const std::bad_alloc&) {
        if (!reserve_) {
            throw;
        }
        reserve_.reset();
        work();
    }
}

/// Has `handler` called with `args` on the application's loop, never inside this call.
template <class Handler, class... Args>
utils::link client_impl::report_later(const Handler& handler, const Args&... args) {
    if (!handler) {
        return {};
    }
    auto wrapped = misc::link_handler(handler, false);
    try {
        schedule_task([report = std::move(wrapped.first), args...] { report(args...); });
    } catch (...) {
        wrapped.second.release(); // it may be in the queue already
        throw;
    }
    return wrapped.second;
}

/// Queues a result for the application's loop. The loop thread only.
template <class Task>
void client_impl::post_from_uloop(Task task) {
    std::function<void()> queued;
    // A task is moved from only when there is memory to hold it.
    with_reserve([&] { queued = std::function<void()>(std::move(task)); });
    queue_from_uloop(std::move(queued));
}

/// One incoming call being served; the connection it belongs to decides whether it can still be
/// answered.
class client_impl::exchange_ctx final : public client::exchange_ctx {
public:
    exchange_ctx(client_impl& owner, const std::shared_ptr<incoming_call>& call,
                 std::multimap<std::string, blob::attr>&& arguments);
    ~exchange_ctx() override;

    bool expired() const override;
    utils::link send(std::multimap<std::string, blob::attr> data,
                     const completion_handler& handler) override;
    void respond(const std::error_code& status) override;

private:
    client_impl& client_;
    const std::weak_ptr<void> tracker_;
    mutable std::mutex lock_;        ///< guards the two below, so that two answers cannot both win
    std::weak_ptr<void> connection_; ///< emptied when the call is completed
    std::shared_ptr<incoming_call> call_; ///< emptied when the call is completed
};

} // namespace tarn
