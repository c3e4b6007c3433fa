/// The loop thread's side of tarn::bus.
#pragma once

#include "bus.h"
#include "client/one_shot.h"
#include "client/standing_operations.h"

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <system_error>

namespace tarn {

class app_side;
class loop_side;
class task_bridge;
struct bus_records;
struct ubus_object_ctx;

/// The standing operations, and what the present connection has registered for them. The loop
/// thread only, so nothing here has a lock.
///
/// An operation is in its list from its beginning to its end, whatever becomes of the connection.
/// Each new connection restores all of them before it is reported. What libubus calls back may
/// come inside a request that waits for the daemon, so a callback only notes and pushes; requests
/// are made by tasks.
class loop_bus : public self_counted {
public:
    loop_bus(task_bridge& bridge, app_side& app, loop_side& loop);
    ~loop_bus() = default;

    // --- standing operations begin and end ---

    // Adding one cannot fail for want of memory; what becomes of its registration is reported.

    void add(listener& added);
    void add(presence_watch& added);
    void add(subscription& added);
    void add(subscribers_watch& added);
    void add(message_watch& added);
    void add(wait_operation& added);
    void remove(const listener& removed);
    void remove(const presence_watch& removed);
    void remove(subscription& removed);
    void remove(const subscribers_watch& removed);
    void remove(const message_watch& removed);
    void remove(const wait_operation& removed);

    // --- one-shot operations ---

    void look_up(look_up_operation& operation);
    void notify(notify_operation& operation);
    void stop(notify_operation& operation);

    /// Answers a notification.
    void answer(served_call& call);

    // --- the connection ---

    /// Registers everything with a new connection.
    void restore();
    /// The connection has ended. May be called deep inside of libubus.
    void on_end();
    /// An object of ours has got its first subscriber, or lost its last.
    void on_subscribers(const std::string& name, bool has_subscribers);
    static void subscribers_changed(ubus_context* context, ubus_object* object);

    /// The life that the present connection belongs to; none without one.
    life_id life() const;

    /// Whether `path` names one object. Any thread.
    static bool is_exact(const std::string& path);

    /// Destroys the handlers of everything that stands. The loop thread has ended.
    void drop_all() noexcept;

private:
    template <class Operation>
    using list = std::list<std::shared_ptr<Operation>>;
    using found_handler = std::function<void(const ubus_object_data&)>;

    // What libubus calls.
    static void on_event(ubus_context* context, ubus_event_handler* receiver, const char* id,
                         blob_attr* msg);
    static int on_notification(ubus_context* context, ubus_object* subscriber,
                               ubus_request_data* request, const char* method, blob_attr* msg);
    static void on_removal(ubus_context* context, ubus_subscriber* subscriber, std::uint32_t id);
    static void on_message(ubus_context* context, std::uint32_t seq, blob_attr* data);
    static void on_notify_data(ubus_request* request, int type, blob_attr* msg);
    static void on_notify_status(ubus_notify_request* request, int index, int status);
    static void on_notify_done(ubus_notify_request* request, int index, int status);

    void take_event(const char* id, blob_attr* msg);
    /// For the event of an object that has appeared or gone.
    void follow_presence(const event& received);
    int take_notification(subscription& target, ubus_request_data& request, const char* method,
                          blob_attr* msg);
    void take_message(blob_attr* data);
    void complete(notify_operation& operation, const std::error_code& outcome);

    /// The records of the present connection. There must be one.
    bus_records& records();
    bool follows_objects() const;
    bool is_listening() const { return !listeners_.empty() || follows_objects(); }

    std::error_code listen_to(const std::string& pattern);
    void stop_listening();
    std::error_code follow_objects();
    std::error_code find(const std::string& pattern, const found_handler& found);
    std::error_code find_one(const std::string& path, std::uint32_t& id);
    std::error_code restore_presence(presence_watch& watch);
    std::error_code start_notify(notify_operation& operation);
    std::shared_ptr<ubus_object_ctx> published(const std::string& name) const;

    void restore(listener& operation);
    void restore(presence_watch& operation);
    void restore(subscription& operation);
    void restore(message_watch& operation);
    void restore(wait_operation& operation);
    void subscribe(subscription& operation, std::uint32_t id);
    void unregister(subscription& removed, subscriber_record& record);
    void follow_up();
    void request_follow_up() noexcept;
    void check(wait_operation& operation);

    task_bridge& bridge_;
    app_side& app_;
    loop_side& loop_;

    // Too long for a std::string to hold in itself.
    const std::string object_added_ = "ubus.object.add";
    const std::string object_removed_ = "ubus.object.remove";

    list<listener> listeners_;
    list<presence_watch> watches_;
    list<subscription> subscriptions_;
    list<subscribers_watch> subscribers_watches_;
    list<message_watch> monitors_;
    list<wait_operation> waits_;

    bool following_up_ = false; ///< the task is queued
    loop_task<loop_bus, &loop_bus::follow_up> follow_up_task_{*this};
};

} // namespace tarn
