/// The loop thread's side of the client: everything that calls libubus.
#pragma once

#include "bus.h"
#include "client/bus_context.h"
#include "client/connection_ctx.h"
#include "client/identity.h"
#include "client/invoke_ctx.h"
#include "client/loop_bus.h"
#include "client/object_ctx.h"
#include "client/object_operation.h"
#include "client/served_call.h"
#include "client/task_bridge.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <system_error>

namespace tarn {

/// The connection, the requests that libubus works on, and the objects registered with it. The loop
/// thread only; so nothing here has a lock. Everything to be reported to the application goes
/// through the bridge.
class loop_side {
public:
    loop_side(task_bridge& bridge, app_side& app);
    loop_side(const loop_side&) = delete;
    loop_side& operator=(const loop_side&) = delete;
    ~loop_side() = default;

    /// Runs what has been posted to the loop thread.
    void run_batch();

    // --- loop_connection.cpp ---

    void connect_sync(connection_ctx& attempt);
    void disconnect_sync(connection_ctx& ending);
    void release_bus();
    void free_lost_bus();

    // --- loop_calls.cpp ---

    void invoke_sync(invoke_ctx& call);
    void abort_sync(invoke_ctx& call);

    // --- loop_objects.cpp ---

    void add_object_sync(object_operation& addition);
    void del_object_sync(object_operation& removal);

    // --- loop_serving.cpp ---

    void send_sync(send_operation& sending);
    void complete_sync(served_call& call);

    // --- what libubus calls; see client_impl ---

    void on_data(ubus_request& request, blob_attr* msg);
    void on_done(ubus_request& request, int status);
    void on_connection_lost(ubus_context* context);
    int on_call(ubus_object* object, ubus_request_data* request, const char* method,
                blob_attr* msg);

    /// Releases everything. The loop thread has ended.
    void drop_all();

    // --- for the loop thread's side of tarn::bus ---

    loop_bus& bus() { return bus_side_; }
    /// The present connection, or attempt at one; null without.
    const std::shared_ptr<connection_ctx>& connection() const { return connection_; }
    bool carries(connection_id id) const { return connection_ && connection_->id == id; }
    /// The connection's context, also when nothing can be sent any more; null when it has been
    /// lost.
    ubus_context* bus_context() const { return bus_.get(); }
    /// The connection if requests can go out on it, else null.
    ubus_context* usable_bus() const;
    /// The same for a request whose answer libubus awaits without a limit: takes in first what has
    /// arrived. While its queue for this process is full the daemon drops its own answers too; it
    /// makes room there before it reads a request.
    ubus_context* caught_up_bus();
    void before_write();
    /// Handles what has arrived inside of requests, which libubus keeps for later. Not in one of
    /// its callbacks.
    void take_postponed();

private:
    /// Object ids that look-ups have found, while they are valid for others: for the calls of one
    /// batch, all of which were requested before the look-up was sent.
    using lookups = std::map<std::string, std::uint32_t, std::less<>>;

    void watch_bus();
    static void on_socket(uloop_fd* socket, unsigned int events);
    static void on_pending_messages(uloop_timeout* timer);
    void take_in();
    void end_unwritable_bus() const;

    std::error_code start_request(invoke_ctx& call);
    std::error_code look_up(ubus_context* bus, const std::string& path, std::uint32_t& id);
    std::error_code register_object(ubus_context* bus,
                                    const std::shared_ptr<ubus_object_ctx>& records);
    std::error_code unregister_object(const std::shared_ptr<ubus_object_ctx>& records,
                                      bool stop_serving);
    int accept_call(ubus_object* object, ubus_request_data& request, const char* method,
                    blob_attr* msg);
    std::shared_ptr<served_call> make_call(const ubus_request_data& request, std::size_t method,
                                           const std::shared_ptr<ubus_object_ctx>& records);

    task_bridge& bridge_;
    app_side& app_;

    bus_context_ptr bus_;
    /// A connection that was lost while libubus functions still used it, until they have returned.
    bus_context_ptr lost_bus_;
    /// What bus_ and lost_bus_ belong to, with the requests and objects that libubus has.
    std::shared_ptr<connection_ctx> connection_;
    uloop_fd_handler socket_handler_ = nullptr;       ///< libubus's own
    uloop_timeout_handler pending_handler_ = nullptr; ///< libubus's own
    /// Records of objects that libubus may still know although (de)registering them failed.
    std::list<std::shared_ptr<ubus_object_ctx>> retired_objects_;
    lookups lookups_;
    int sent_unread_ = 0; ///< calls sent since the socket was looked at last
    /// A connection that is lost while standing operations are restored counts as never made.
    bool restoring_ = false;
    loop_bus bus_side_;
};

} // namespace tarn
