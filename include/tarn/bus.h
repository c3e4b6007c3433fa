/// The rest of the bus, beside calls and published objects: events, notifications, what is there,
/// and what passes. Reached with client::get_bus().
#pragma once

#include "tarn/blob.h"
#include "tarn/client.h"
#include "tarn/export.h"
#include "tarn/link.h"
#include "tarn/stats.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace tarn {

/// Events, subscriptions, introspection and the monitor, over the connection of a tarn::client.
///
/// There are two kinds of operations. One-shot ones (send_event(), objects(), wait_for(), notify())
/// have an outcome, as those of tarn::client have. Standing ones (listen(), on_object(),
/// subscribe(), on_subscribers(), monitor()) last until their link is released: they may be started
/// at any time, connected or not, and are restored on every reconnection before the client reports
/// state::connected. So what they register is in place when the application is notified of the
/// connection. They survive client::disconnect() and client::cancel(), and wait for the next
/// connection. Nothing is resent: what happens on the bus without a connection is lost, and the
/// reports of standing operations say when that may have been so.
///
/// Threads. As tarn::client: every function, and the release of every link, may be called from any
/// thread at any time, from handlers too.
///
/// Delivery. Every handler is called on the application's loop, never inside the operation that
/// took it. The reports of one standing operation come in the order in which the bus sent them. A
/// standing operation's handlers are destroyed when its link is released, unless one is running,
/// and not called any more. client::cancel() ends the one-shot operations with generic::aborted, on
/// its own thread. Of what has not been delivered to the standing ones it drops events,
/// notifications and messages; what has appeared, gone, been subscribed to or lost is reported.
///
/// Exceptions. As tarn::client. What a standing operation has not delivered when one of its
/// handlers throws is delivered later.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API bus {
public:
    /// The fields of an event, a notification or a message.
    using table = std::multimap<std::string, blob::attr>;
    /// Receives the outcome of an operation.
    using completion_handler = client::completion_handler;

    /// Receives one event: its id and its data.
    using event_handler = std::function<void(const std::string&, const table&)>;
    /// Is notified of how many events or notifications were dropped, since the application is
    /// behind.
    using dropped_handler = std::function<void(std::uint64_t)>;

    /// How a standing operation delivers.
    struct options {
        /// So many events, notifications or messages may wait for the application's loop. Beyond
        /// that the oldest is dropped. At least 1.
        std::size_t most_undelivered = 10000;
        /// Called before the next delivery, with the number that was dropped in between. May be
        /// empty.
        dropped_handler on_dropped;
        /// Called with the outcome of each registration with the bus: once for every connection. It
        /// gets success when the operation is in place, for on_object() after the objects that were
        /// there; or the status with which the daemon refused, such as msg::permission_denied, or
        /// msg::no_memory when memory ran out on the private thread: then the operation has no
        /// effect until the next connection, but for what on_object() has found before. May be
        /// empty.
        completion_handler on_registered;
    };

    /// The type of a field that a method expects. Other numbers are types that this library does
    /// not know.
    enum class field_type : int {
        any = 0,
        array = 1,
        table = 2,
        string = 3,
        int64 = 4,
        int32 = 5,
        int16 = 6,
        int8 = 7, ///< also a bool
        float64 = 8,
    };
    /// One field that a method expects.
    struct field_info {
        std::string name;                  ///< of the field
        field_type type = field_type::any; ///< of its value
    };
    /// One method of an object, with the fields that it expects in the order of its publisher.
    struct method_info {
        std::string name;               ///< of the method
        std::vector<field_info> fields; ///< none is expected where it is empty
    };
    /// One object on the bus.
    struct object_info {
        std::string path;                 ///< under which it is called
        std::uint32_t id = 0;             ///< new whenever it is published
        std::uint32_t type_id = 0;        ///< objects with the same signature may share one
        std::vector<method_info> methods; ///< those that this process may call
    };
    /// Receives the objects found, in the order of the daemon; empty unless it succeeded.
    using objects_handler =
        std::function<void(const std::vector<object_info>&, const std::error_code&)>;

    /// What has become of an object.
    enum class presence : int {
        appeared = 0,
        gone = 1,
    };
    /// Is notified of an object that has appeared or gone: what, its path and its id.
    using presence_handler = std::function<void(presence, const std::string&, std::uint32_t)>;

    /// Receives one notification, its method's name and its exchange context with the data in
    /// `args`. The result is the answer, for a notifier that waits for one; without a result the
    /// context is answered later, as that of a call.
    using notification_handler = std::function<std::optional<std::error_code>(
        const std::string&, const std::shared_ptr<client::exchange_ctx>&)>;
    /// What has become of a subscription.
    enum class subscription : int {
        subscribed = 0, ///< notifications are delivered from now on
        lost = 1,       ///< the object or the connection has gone; notifications may be missed
        refused = 2,    ///< the daemon refused it, until the object appears anew
    };
    /// Is notified of each change of a subscription, with the reason: success when subscribed;
    /// msg::not_found when the object has gone, msg::connection_failed when the connection ended;
    /// the daemon's status when it refused, such as msg::invalid_argument for an object of this
    /// process, or msg::no_memory when memory ran out on the private thread. An object that the
    /// access rules hide counts as one that is not there.
    using subscription_handler = std::function<void(subscription, const std::error_code&)>;
    /// How a subscription delivers. Its `on_registered` gets success once the appearance of the
    /// object is followed, before it is subscribed; and msg::permission_denied when this
    /// process may not follow which objects appear: then it is subscribed only if the object was
    /// there when the connection was made.
    struct subscribe_options : options {
        /// Whether the handler answers notifiers that wait for an answer. If false they are
        /// answered with success at once, before the handler is called; its result is ignored and
        /// its context has expired. That spares a message for each notification.
        bool answers = true;
    };

    /// What one subscriber has answered to a notification.
    struct notify_answer {
        std::list<blob::attr> replies; ///< one table for each data reply, in order of arrival
        /// msg::timeout when it has sent replies but no status in time.
        std::error_code status;
    };
    /// Receives the subscribers' answers and the outcome of a notification.
    using answers_handler =
        std::function<void(const std::vector<notify_answer>&, const std::error_code&)>;
    /// Is notified whether an object has subscribers.
    using subscribers_handler = std::function<void(bool)>;

    /// One message that has passed the daemon.
    struct message {
        std::uint32_t client = 0; ///< whose connection it passed
        std::uint32_t peer = 0;   ///< in its header: an object or another client
        std::uint16_t seq = 0;    ///< in its header
        bool sent = false;        ///< from the daemon to that client; false: from it
        int type = 0;             ///< the number of its kind; see name_of()
        /// Its attributes by their names. Numbers (unsigned int): "status", "objid", "objtype",
        /// "target". Texts: "objpath", "method", "user", "group". Flags (bool): "active",
        /// "no_reply". Tables: "signature", "data". A list of numbers: "subscribers".
        table attributes;
    };
    /// The name of a kind of message, such as "invoke"; empty for one that is not known. The text
    /// is static. Thread: any.
    static const char* name_of(int message_type);
    /// Receives one message that has passed the daemon.
    using message_handler = std::function<void(const message&)>;

    virtual ~bus();

    /// Listens to the events whose id matches `pattern`: that is `pattern`, or begins with what
    /// precedes a `*` at its end. Any number of listeners share one receiver on the bus; each gets
    /// an event once. A process does not receive its own events, except the daemon's
    /// "ubus.object.add" and "ubus.object.remove". The daemon goes on sending what a released
    /// listener has listened to, as long as the connection and any listener, on_object(),
    /// subscribe() or wait_for() last; it is dropped here. So listen to few patterns, not to a new
    /// one for each job.
    ///
    /// Thread: any.
    /// Handler: for every event, on the application's loop. An event that cannot be decoded has an
    /// empty table. An empty handler starts nothing and gives an empty link.
    /// Errors: none here; see options::on_registered. It gets msg::permission_denied for an empty
    /// pattern and for one that this process may not listen to, and msg::invalid_argument for one
    /// that holds a NUL byte or exceeds the bus limit.
    virtual utils::link listen(const std::string& pattern, const event_handler& handler,
                               const options& how) = 0;
    /// The same with the default options.
    utils::link listen(const std::string& pattern, const event_handler& handler) {
        return listen(pattern, handler, options());
    }

    /// Sends an event to the listeners of other processes. The link is active while the report is
    /// pending; releasing it suppresses the report.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success when the daemon has
    /// taken the event, whether or not there are listeners; it does not confirm their delivery, and
    /// drops what a listener that does not read has no room for.
    /// Errors:
    ///   msg::permission_denied     this process may not send it, or `id` begins with "ubus.";
    ///   msg::parse_error           `data` cannot be encoded (an empty attr);
    ///   msg::invalid_argument      the encoded event exceeds 1,048,056 bytes (see
    ///                              client::invoke()), or `id` holds a NUL byte;
    ///   msg::connection_failed     not connected, or the connection ended before the answer;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           client::cancel() ended it.
    virtual utils::link send_event(const std::string& id, const table& data,
                                   const completion_handler& handler) = 0;

    /// Looks up the objects whose path matches `pattern`: exactly, or by what precedes a `*` at its
    /// end. "*" finds all. Objects of which this process may call no method are left out. The link
    /// is active while the report is pending; releasing it suppresses the report.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop, after the reports of standing operations whose
    /// messages arrived ahead of the answer; may be empty. No object is success with an empty list.
    /// Errors:
    ///   msg::invalid_argument      `pattern` is empty, holds a NUL byte or exceeds the bus limit;
    ///   msg::connection_failed     not connected, or the connection ended before the answer;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           client::cancel() ended it;
    ///   any other msg              the status with which the daemon refused.
    virtual utils::link objects(const std::string& pattern, const objects_handler& handler) = 0;

    /// Waits until objects are published under all of `paths` at the same time. It calls none of
    /// them. It need not be connected, and goes on waiting when the connection ends. The link is
    /// active while it waits; releasing it ends that.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success when all are there,
    /// at once for no paths.
    /// Errors:
    ///   msg::timeout               `limit` (whole seconds; zero for none) passed first. A negative
    ///                              one expires at once;
    ///   msg::permission_denied     not all are there, and this process may not follow objects;
    ///   msg::invalid_argument      a path is empty, ends in `*`, holds a NUL byte or exceeds the
    ///                              bus limit;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           client::cancel() ended it.
    virtual utils::link wait_for(const std::vector<std::string>& paths,
                                 const std::chrono::seconds& limit,
                                 const completion_handler& handler) = 0;

    /// Follows the objects whose path matches `pattern`, as objects() does: reports those that are
    /// there, then every one that appears or goes, each once. When the connection ends all are
    /// reported as gone.
    ///
    /// Thread: any.
    /// Handler: for every change, on the application's loop. These are not limited in number. An
    /// empty handler starts nothing and gives an empty link.
    /// Errors: none here; see options::on_registered. It gets msg::permission_denied when this
    /// process may not listen to "ubus.object.add" and "ubus.object.remove", and
    /// msg::invalid_argument as objects().
    virtual utils::link on_object(const std::string& pattern, const presence_handler& handler,
                                  const options& how) = 0;
    /// The same with the default options.
    utils::link on_object(const std::string& pattern, const presence_handler& handler) {
        return on_object(pattern, handler, options());
    }

    /// Subscribes to the notifications of the object at `path`, whenever it is there: at once, when
    /// it appears, and again after it or the connection was lost.
    ///
    /// Thread: any.
    /// Handler: `handler` for every notification and `on_change` for every change of the
    /// subscription, both on the application's loop, in order. Both may be empty; notifiers are
    /// then answered with success. A notification that is dropped is answered msg::unknown_error.
    /// So are, when the link is released, those that are undelivered and those whose context is
    /// kept; a handler that is running then still answers its own. One that cannot be decoded is
    /// answered msg::unknown_error too, and not delivered.
    /// Errors: none here; see subscription_handler. `on_change` gets `refused` with
    /// msg::invalid_argument, once, for a path that is empty, ends in `*`, holds a NUL byte or
    /// exceeds the bus limit.
    virtual utils::link subscribe(const std::string& path, const notification_handler& handler,
                                  const subscription_handler& on_change,
                                  const subscribe_options& how) = 0;
    /// The same with the default options.
    utils::link subscribe(const std::string& path, const notification_handler& handler,
                          const subscription_handler& on_change = {}) {
        return subscribe(path, handler, on_change, subscribe_options());
    }

    /// Notifies the subscribers of the object `name` that this client publishes, and does not wait
    /// for them. The link is active while the report is pending; releasing it suppresses the
    /// report.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success when the
    /// notification was passed to the bus.
    /// Errors:
    ///   msg::not_found             this client publishes no such object, or not yet;
    ///   msg::parse_error           `data` cannot be encoded (an empty attr);
    ///   msg::invalid_argument      the encoded notification, the method's name included, exceeds
    ///                              1,048,048 bytes, or `method` holds a NUL byte;
    ///   msg::connection_failed     not connected, or the connection ended;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           client::cancel() ended it.
    virtual utils::link notify(const std::string& name, const std::string& method,
                               const table& data, const completion_handler& handler) = 0;

    /// The same, waiting for the answers of all subscribers. `limit` counts whole seconds from now;
    /// zero means none, and then a subscriber that never answers leaves the notification pending. A
    /// negative one expires at once.
    /// libubus tells the answers of the first 16 subscribers apart, and awaits no others.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets one element for each
    /// subscriber that libubus awaits, in no particular order.
    /// Errors: as above, and
    ///   msg::timeout               `limit` passed first; there is one element for each subscriber
    ///                              that has sent something so far.
    virtual utils::link notify(const std::string& name, const std::string& method,
                               const table& data, const std::chrono::seconds& limit,
                               const answers_handler& handler) = 0;

    /// Follows whether the object `name` that this client publishes has subscribers: from the first
    /// that comes to the last that goes, through withdrawals and reconnections. The object need not
    /// be published yet.
    ///
    /// Thread: any.
    /// Handler: for every change, on the application's loop, beginning with true. An empty handler
    /// starts nothing and gives an empty link.
    virtual utils::link on_subscribers(const std::string& name,
                                       const subscribers_handler& handler) = 0;

    /// Receives every message that passes the daemon, those of this process included. For root
    /// only: the messages hold everybody's data.
    ///
    /// Thread: any.
    /// Handler: for every message, on the application's loop. An attribute that cannot be decoded
    /// is left out. An empty handler starts nothing and gives an empty link.
    /// Errors: none here; options::on_registered gets msg::permission_denied for others.
    virtual utils::link monitor(const message_handler& handler, const options& how) = 0;
    /// The same with the default options.
    utils::link monitor(const message_handler& handler) { return monitor(handler, options()); }

    /// A snapshot of what has happened since the start of the process. The counts are exact, but
    /// not all of the same moment while other threads work.
    ///
    /// Thread: any.
    virtual tarn::stats stats() const = 0;
};

} // namespace tarn
