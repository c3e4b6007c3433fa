/// The bus client: connect, call methods of other processes' objects, publish objects, follow the
/// connection. This is the header an application starts from.
#pragma once

#include "tarn/blob.h"
#include "tarn/error.h"
#include "tarn/event_loop.h"
#include "tarn/export.h"
#include "tarn/link.h"

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <typeindex>
#include <utility>

namespace tarn {

class bus;

/// The process's client of the ubus bus.
///
/// There is one per process. It owns a private thread that makes every call of libubus and
/// libubox, and delivers every result to the event loop that the application passed to the first
/// get_instance(). It never calls a handler on its private thread, and holds no lock while a
/// handler runs. So the client is reentrant: a handler may call anything here without deadlock.
///
/// Threads. The client is thread-safe: every function, and the release of every link, may be called
/// from any thread at any time. Concurrent operations are serialised, each as a whole: every
/// handler gets the outcome of its own operation.
///
/// Delivery. A handler is a callback that is called at most once, on the application's loop, and
/// never inside the operation that took it. (Where another thread calls the operation, the handler
/// may run before it has returned there.) There are two exceptions: cancel() completes what is
/// outstanding on its caller's thread, and state subscribers are called on the thread that changes
/// the state: the loop's for what comes from the bus, the caller's for connect(), auto_connect(),
/// disconnect() and cancel(). (When two threads change it at the same moment, the one that is
/// already notifying notifies of both changes, one after the other. A change that a subscriber
/// makes is reported inside its call, before the subscribers behind it are notified of the first.)
/// Results produced before the application's first request of the bus, or after a cancel(), wait
/// until its next request.
///
/// Exceptions. Outcomes are std::error_code values, never exceptions. What an operation can throw
/// is misuse (std::runtime_error "tarn_impl::client: No event loop" when the application's loop is
/// gone), a failure to wake the private thread (std::runtime_error "uloop: ..."), or
/// std::bad_alloc; the operation has then not begun and its handler is not called. An exception
/// that leaves a handler passes through the loop's task, and the handlers whose results are queued
/// behind it in the same batch are not called, so handlers should catch their own exceptions.
///
/// End of the process. The client is stopped by the runtime's exit handlers: the connection is
/// closed, the private thread joined, and everything still pending dropped without a report. The
/// application's loop must outlive it; hold the loop in an object of static storage that was made
/// before the first get_instance(). Calls that other threads still make afterwards are no-ops.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API client {
public:
    /// The state of the connection to the bus.
    enum class state : int {
        disconnected = 0,  ///< no connection; the first state
        connecting = 1,    ///< an attempt is under way
        connected = 2,     ///< calls reach the bus
        disconnecting = 3, ///< the connection is being torn down
    };

    class exchange_ctx;

    /// Receives the outcome of an operation.
    using completion_handler = std::function<void(const std::error_code&)>;
    /// Receives the outcome of a call: one element per data reply, in order of arrival, each
    /// holding that reply's table; empty unless the call completed.
    using result_handler =
        std::function<void(const std::list<blob::attr>&, const std::error_code&)>;
    /// Receives one data reply of a call, a table, when it arrives.
    using reply_handler = std::function<void(const blob::attr&)>;
    /// Is notified of each new state of the connection.
    using state_handler = std::function<void(state)>;
    /// Returns how long to wait before reconnection attempt number n (1 for the first after a
    /// failure or loss), such as an exponential back-off. Less than one second turns automatic
    /// reconnection off.
    using backoff_function = std::function<std::chrono::seconds(long long)>;
    /// Serves one incoming call.
    using method_handler = std::function<void(const std::shared_ptr<exchange_ctx>&)>;
    /// The fields that a method expects: name to the stored type of blob::attr (an unsigned type
    /// for integers). An empty policy takes the arguments as they come.
    using method_policy = std::multimap<std::string, std::type_index>;
    /// A published object's methods: name to handler and policy.
    using method_map = std::map<std::string, std::pair<method_handler, method_policy>>;

    virtual ~client() = default;

    /// The client of this process, made on the first call and bound for good to `loop`, which must
    /// be alive then. The first call starts the private thread and returns once that thread runs;
    /// the dispositions of SIGINT, SIGTERM, SIGCHLD and SIGPIPE stay the application's. Nothing
    /// connects yet. Later calls may pass the same loop, or an expired or empty pointer.
    /// A run of tarn::uloop that is the application's own is asked to stop; this waits for its end,
    /// unless it is called by one of its tasks.
    ///
    /// Thread: any.
    /// Errors: throws std::runtime_error "tarn_impl::client: " followed by
    ///   "No event loop" or "Missing/expired event loop"  the first call's loop does not exist;
    ///   "Instance of event loop can't be changed"        a later call names another live loop;
    /// and, the first call, std::system_error when the thread cannot be started, and what the
    /// loop's create_timer() throws. After a failed first call the next one tries again. Where the
    /// thread's own loop cannot start, for want of descriptors for instance, the process ends with
    /// the text of an exception, "uloop: ...".
    static client& get_instance(const std::weak_ptr<utils::event_loop>& loop);

    /// Connects to the bus once, at libubus's default socket, and turns automatic reconnection off.
    /// The link is active while the report is pending; releasing it suppresses the report, not the
    /// attempt.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success, also when already
    /// connected.
    /// Errors: generic::unknown_error when there is no bus; generic::aborted when cancel() ended
    /// the attempt, when a disconnect() came before the attempt had begun (it waits for the end of
    /// an earlier connection; one that has begun is completed, and its outcome reported), or when
    /// the end of a connection is being reported (the attempt is made then).
    virtual utils::link connect(const completion_handler& handler) = 0;

    /// Connects now, and reconnects whenever the connection fails or is lost, after the delay that
    /// `backoff` returns for the attempt; replaces an earlier back-off and starts counting at 1.
    /// The count also starts anew after every success. The link is active while automatic
    /// reconnection is on; it ends when it is released, on connect(), disconnect() or cancel(), and
    /// when `backoff` returns less than one second. An empty `backoff` connects once and returns an
    /// empty link.
    ///
    /// Thread: any.
    /// Handler: `backoff` is called on the thread that changes the state, and must not throw.
    virtual utils::link auto_connect(const backoff_function& backoff) = 0;

    /// Ends the connection and turns automatic reconnection off. Calls in flight end with
    /// msg::connection_failed. Published objects are forgotten once the subscribers and handlers
    /// have been notified of the end: until then their names are taken. The shutdown is graceful:
    /// what was sent or responded before reaches the bus first, and the connection is closed once
    /// the daemon has read everything, or after 500 ms. The link is active while the report is
    /// pending; releasing it suppresses the report.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success, also when already
    /// disconnected.
    /// Errors: generic::aborted when a connect() came before the end had begun (it waits for the
    /// outcome of an attempt that is under way; an end that has begun is completed, and reported as
    /// success), or when the outcome of a connect() is being reported (the connection is ended
    /// then).
    virtual utils::link disconnect(const completion_handler& handler) = 0;

    /// Subscribes to the state: calls `handler` with every new state until the link is released. A
    /// subscriber added or released while a change is being reported takes effect with the next
    /// one. Of more than 32 changes that wait for a subscriber that is busy, the newest takes the
    /// place of the one before it. An empty handler subscribes nothing and gives an empty link.
    ///
    /// Thread: any.
    /// Handler: once for every change, on the thread that changes the state.
    virtual utils::link notify_on_state_change(const state_handler& handler) = 0;

    /// The current state; it may have changed by the time the caller looks at it.
    ///
    /// Thread: any.
    virtual state get_state() const = 0;

    /// Whether the state is `connected`.
    ///
    /// Thread: any.
    virtual bool is_active() const = 0;

    /// Calls `method` of the object published under `path` with `args`. A `path` that ends in `*`
    /// calls an object whose path begins with what precedes the `*`: of several the last in the
    /// order of their paths. `timeout` counts whole seconds from now; zero means no limit, and then
    /// a callee that dies without answering leaves the call pending for good. A negative one
    /// expires at once.
    ///
    /// The call is cancellable: the link is active while it is pending, and releasing it ends the
    /// call: `handler` is not started any more and is destroyed, unless it has already begun.
    ///
    /// Thread: any.
    /// Handler: exactly once, on the application's loop, unless the link is released first; may be
    /// empty. It gets the replies and
    ///   success                    the callee completed the call;
    /// Errors:
    ///   the callee's status        it refused (msg::permission_denied, method_not_found, ...),
    ///                              with the replies that came before;
    ///   msg::parse_error           a reply could not be decoded (an empty table takes its place),
    ///                              or `args` could not be encoded (no replies);
    ///   msg::invalid_argument      the encoded call, the method's name included, exceeds 1,048,056
    ///                              bytes: the bus limit of 1,048,576 less what the names of this
    ///                              process's user and group may take, which the daemon adds; or
    ///                              the look-up of `path` exceeds the bus limit; or `path` or
    ///                              `method` holds a NUL byte;
    ///   msg::not_found             no such object, or not one this process may see;
    ///   msg::timeout               `timeout` passed first; replies so far are discarded;
    ///   msg::connection_failed     not connected, or the connection ended before the answer;
    ///   msg::no_memory             memory ran out on the private thread, or 65,536 calls of this
    ///                              object are pending, the most that the bus can distinguish;
    ///   generic::aborted           cancel() ended it.
    virtual utils::link invoke(const std::string& path, const std::string& method,
                               const std::multimap<std::string, blob::attr>& args,
                               const result_handler& handler,
                               const std::chrono::seconds& timeout) = 0;

    /// Publishes an object called `name` with `methods`. Incoming calls reach the method handlers
    /// on the application's loop, each with an exchange_ctx to answer through; a call of a method
    /// with an empty handler is answered with success. An object lives as long as the connection:
    /// add it again from a state subscriber on every state::connected. The link is active while the
    /// report is pending; releasing it suppresses the report, not the registration.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success once other clients
    /// can see the object.
    /// Errors, after each of which the object is forgotten (after generic::aborted once the
    /// connection has ended, see cancel()):
    ///   msg::invalid_argument      an object of this name is already published by this client, or
    ///                              by another client of the bus; or a policy names a type that is
    ///                              no stored type of blob::attr (typeid(int) instead of
    ///                              typeid(unsigned int)); or the description exceeds the bus
    ///                              limit; or `name`, a method's name or a field's name in a policy
    ///                              holds a NUL byte;
    ///   msg::connection_failed     not connected, or the connection ended first;
    ///   msg::no_response           the daemon reported success but gave the object no id;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           cancel() ended it;
    ///   any other msg              the status with which the daemon refused.
    virtual utils::link add_object(const std::string& name, const method_map& methods,
                                   const completion_handler& handler) = 0;

    /// Withdraws the object called `name`. With `stop_serving` true, calls that arrive while the
    /// removal is under way are answered msg::not_found; with false they still reach their
    /// handlers, but once the object is gone the bus drops its answers, and their callers wait for
    /// their own time limits. The name may be published anew at once. The link is active while the
    /// report is pending; releasing it suppresses the report, not the removal.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; may be empty. It gets success.
    /// Errors:
    ///   msg::not_found             no such object here (or it is being removed already), or it was
    ///                              never registered with the bus;
    ///   msg::connection_failed     not connected; the object is forgotten all the same;
    ///   msg::no_response           the daemon reported success but named no object; the object is
    ///                              forgotten all the same;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           cancel() ended it;
    ///   any other msg              the status with which the daemon refused.
    virtual utils::link del_object(const std::string& name, bool stop_serving,
                                   const completion_handler& handler) = 0;

    /// Ends everything outstanding, before it returns and on the calling thread: automatic
    /// reconnection stops, pending calls and operations get generic::aborted, connect handlers
    /// generic::aborted, disconnect handlers success, and the state becomes `disconnected`.
    /// Published objects are no longer served; their names are free from the next
    /// state::connected on. An outcome that was known when the operation was requested, and waits
    /// for the application's loop, is reported as it is. What has been posted to that loop before
    /// finds nothing left to do. The client can be used again afterwards.
    ///
    /// It never waits for the bus, nor for a handler that has begun on the application's loop when
    /// another thread calls cancel(): so the last reply that invoke_each() reports may be handled
    /// there while the call is reported as aborted here. A handler that it calls may call cancel()
    /// in turn, and then use the client: what is left is ended by the inner call.
    ///
    /// Thread: any.
    /// Handler: those of everything outstanding, on the calling thread, inside this call.
    /// Errors: throws what a handler throws, and std::bad_alloc. The client can then be used again
    /// after another cancel(), which does the rest.
    virtual void cancel() = 0;

    /// As invoke(), for replies that are wanted when they come, or are many: `each` gets every
    /// reply as it arrives, and `handler` the outcome after the last of them. Nothing is kept of a
    /// reply that `each` has got. So what has come before a time limit, the end of the connection
    /// or cancel() is known, unlike with invoke(). A time limit and cancel() drop what has arrived
    /// but still waits for the application's loop.
    ///
    /// A client that does not override it calls invoke() and delivers the replies at the end.
    ///
    /// Thread: any.
    /// Handler: `each` once for every reply and `handler` once, both on the application's loop.
    /// Both may be empty; neither is called any more once the link is released, a call that has
    /// begun aside.
    /// Errors: as for invoke(). A reply that cannot be decoded is an empty table for `each`, and
    /// makes the outcome msg::parse_error.
    virtual utils::link invoke_each(const std::string& path, const std::string& method,
                                    const std::multimap<std::string, blob::attr>& args,
                                    const reply_handler& each, const completion_handler& handler,
                                    const std::chrono::seconds& timeout);

    /// The event loop that the client was made with, where every callback runs; empty when it has
    /// been destroyed. For timers and tasks of code that is given only the client.
    ///
    /// A client that does not override it returns an empty pointer.
    ///
    /// Thread: any.
    virtual std::weak_ptr<utils::event_loop> get_event_loop() const;

    /// Events, subscriptions, introspection and the monitor over this client's connection; see
    /// bus.h. It lives as long as the client.
    ///
    /// Thread: any.
    /// Errors: a client that does not override it throws std::logic_error "tarn::client: No bus".
    virtual bus& get_bus();
};

/// One incoming call being served, passed to a method handler.
///
/// It may be kept and answered later. It is thread-safe, `args` aside: all operations may run on
/// any threads at once. The call is completed exactly once: by the first respond(), or with success
/// when the last owner lets the context go.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API client::exchange_ctx {
public:
    virtual ~exchange_ctx() = default;

    exchange_ctx(const exchange_ctx&) = delete;
    exchange_ctx& operator=(const exchange_ctx&) = delete;

    /// Whether answering is no longer possible: the call was completed, or the connection that
    /// carried it has ended. It may change at any moment.
    ///
    /// Thread: any.
    virtual bool expired() const = 0;

    /// Sends one data reply; any number may precede respond(), and all sent before it reach the
    /// caller before the completion. The link is active while the report is pending; releasing it
    /// suppresses the report, not the reply.
    ///
    /// Thread: any.
    /// Handler: once, on the application's loop; not when the connection ends between the call and
    /// the sending, nor when the client is being cancelled or has been since the call came in (the
    /// link is then empty). It may be empty, and the link is then empty too. It gets success when
    /// the reply was passed to the bus.
    /// Errors:
    ///   msg::connection_failed     the context has expired;
    ///   msg::parse_error           `data` cannot be encoded (an empty attr);
    ///   msg::invalid_argument      the encoded reply exceeds the bus limit of 1,048,576 bytes, or
    ///                              libubox has no memory to make it longer; it is not sent and
    ///                              the call stays open;
    ///   msg::no_response           writing to the bus failed;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           client::cancel() ended it.
    virtual utils::link send(std::multimap<std::string, blob::attr> data,
                             const completion_handler& handler) = 0;

    /// Completes the call with `status`. A no-op when expired. Statuses that the bus does not carry
    /// (every code that is not of error::msg_category, and msg::no_memory, parse_error and
    /// system_error) reach the caller as msg::unknown_error.
    ///
    /// Thread: any.
    virtual void respond(const std::error_code& status) = 0;

    /// Whether the call can still be answered: !expired().
    ///
    /// Thread: any.
    operator bool() const { return !expired(); }

    /// The call's arguments, decoded. The context's owner may move them out.
    ///
    /// Thread: one at a time; no lock guards them.
    std::multimap<std::string, blob::attr> args;

protected:
    /// For the implementation, which fills in the call's arguments.
    explicit exchange_ctx(std::multimap<std::string, blob::attr>&& arguments)
        : args(std::move(arguments)) {}
};

} // namespace tarn
