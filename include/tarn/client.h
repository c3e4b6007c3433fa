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

/// The process's client of the ubus bus.
///
/// There is one per process. It owns a private thread that makes every call of libubus and
/// libubox, and delivers every result to the event loop that the application gave to the first
/// get_instance(). It never calls a handler on its private thread, and holds no lock while a
/// handler runs, so a handler may call anything here.
///
/// Threads. Every function, and the release of every link, may be called from any thread at any
/// time. Operations that meet come one after another, each as a whole: every handler is told what
/// became of its own.
///
/// Delivery. A handler is called at most once, on the application's loop, and never inside the
/// operation that took it. (Where another thread calls the operation, the handler may run before it
/// has returned there.) There are two exceptions: cancel() completes what is
/// outstanding on its caller's thread, and state subscribers are called on the thread that changes
/// the state: the loop's for what comes from the bus, the caller's for connect(), auto_connect(),
/// disconnect() and cancel(). (Of two threads that change it at the same moment the one that tells
/// already tells both changes, one after the other. What a subscriber changes is told inside its
/// call, before those behind it hear of the first.) Results produced before the application's first
/// request of the bus, or after a cancel(), wait until its next request.
///
/// Exceptions. Outcomes are std::error_code values, never exceptions. What an operation can throw
/// is misuse (std::runtime_error "tarn_impl::client: No event loop" when the application's loop is
/// gone), a failure to wake the private thread (std::runtime_error "uloop: ..."), or
/// std::bad_alloc; the operation has then not begun and its handler is not called. An exception
/// that leaves a handler passes through the loop's task, and the handlers whose results are queued
/// behind it in the same batch are not called, so handlers had better catch their own.
///
/// End of the process. The client is stopped by the runtime's exit handlers: the connection is
/// closed, the private thread joined, and everything still pending dropped without a report. The
/// application's loop must outlive it; hold the loop in an object of static storage that was made
/// before the first get_instance(). Calls that other threads still make afterwards do nothing.
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
    /// Receives each new state of the connection.
    using state_handler = std::function<void(state)>;
    /// Tells how long to wait before reconnection attempt number n (1 for the first after a
    /// failure or loss). Less than one second turns automatic reconnection off.
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
    /// Any thread. Throws std::runtime_error "tarn_impl::client: " followed by
    ///   "No event loop" or "Missing/expired event loop"  the first call's loop does not exist;
    ///   "Instance of event loop can't be changed"        a later call names another live loop.
    /// After a failed first call the next one tries again.
    static client& get_instance(const std::weak_ptr<utils::event_loop>& loop);

    /// Connects to the bus once, at libubus's default socket, and turns automatic reconnection off.
    /// `handler` gets success, generic::unknown_error when there is no bus, or generic::aborted
    /// when disconnect() or cancel() overtook the attempt, or when the end of a connection is being
    /// told (the attempt is made then). When already connected it gets success.
    /// It may be empty. The link is active while the report is pending; releasing it suppresses
    /// the report, not the attempt.
    virtual utils::link connect(const completion_handler& handler) = 0;

    /// Connects now and again whenever the connection fails or is lost, after the delay that
    /// `backoff` names for the attempt; replaces an earlier back-off and starts counting at 1. The
    /// count also starts anew after every success. `backoff` is called on the thread that changes
    /// the state and must not throw. The link is active while automatic reconnection is on; it
    /// ends when it is released, on connect(), disconnect() or cancel(), and when `backoff` returns
    /// less than one second. An empty `backoff` connects once and returns an empty link.
    virtual utils::link auto_connect(const backoff_function& backoff) = 0;

    /// Ends the connection and turns automatic reconnection off. Calls in flight end with
    /// msg::connection_failed. Published objects are forgotten when the subscribers and handlers
    /// have heard of the end: until then their names are taken. What was sent or responded before
    /// reaches the bus first: the connection is closed once the daemon has read everything, or
    /// after 500 ms. `handler` gets success, also when already disconnected, or generic::aborted
    /// when a connect() overtook it, or when the outcome of a connect() is being told (the
    /// connection is ended then). It may be empty. The link is active while the report is
    /// pending; releasing it suppresses the report.
    virtual utils::link disconnect(const completion_handler& handler) = 0;

    /// Calls `handler` with every new state, on the thread that changes it, until the link is
    /// released; a subscriber added or released while a change is being told takes effect with the
    /// next one. An empty handler subscribes nothing and gives an empty link. Any thread.
    virtual utils::link notify_on_state_change(const state_handler& handler) = 0;

    /// The current state; it may have changed by the time the caller looks at it. Any thread.
    virtual state get_state() const = 0;

    /// Whether the state is `connected`. Any thread.
    virtual bool is_active() const = 0;

    /// Calls `method` of the object published under `path` with `args`. Any thread. A `path` that
    /// ends in `*` calls an object whose path begins with what stands before the `*`: of several
    /// the last in the order of their paths.
    ///
    /// `handler` is called exactly once, on the application's loop, unless the link is released
    /// first. It gets the replies and
    ///   success                    the callee completed the call;
    ///   the callee's status        it refused (msg::permission_denied, method_not_found, ...),
    ///                              with the replies that came before;
    ///   msg::parse_error           a reply could not be decoded (an empty table stands for it),
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
    ///                              object are pending, which is all that the bus can tell apart;
    ///   generic::aborted           cancel() ended it.
    /// `timeout` counts whole seconds from now; zero means no limit, and then a callee that dies
    /// without answering leaves the call pending for good. A negative one expires at once.
    ///
    /// The link is active while the call is pending. Releasing it ends the call: `handler` is not
    /// started any more and is destroyed, unless it has already begun. `handler` may be empty.
    virtual utils::link invoke(const std::string& path, const std::string& method,
                               const std::multimap<std::string, blob::attr>& args,
                               const result_handler& handler,
                               const std::chrono::seconds& timeout) = 0;

    /// Publishes an object called `name` with `methods`. Any thread.
    ///
    /// Incoming calls reach the method handlers on the application's loop, each with an
    /// exchange_ctx to answer through; a call of a method with an empty handler is answered with
    /// success. `handler` gets success once other clients can see the object, or
    ///   msg::invalid_argument      an object of this name is already published by this client, or
    ///                              by another client of the bus; or a policy names a type that is
    ///                              no stored type of blob::attr (typeid(int) instead of
    ///                              typeid(unsigned int)); or the description exceeds the bus
    ///                              limit; or `name`, a method's name or a field's name in a policy
    ///                              holds a NUL byte;
    ///   msg::connection_failed     not connected, or the connection ended first;
    ///   msg::no_response           the daemon said success but gave the object no id;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           cancel() ended it;
    ///   any other msg              the status with which the daemon refused;
    /// after which the object is forgotten. An object lives as long as the connection: add it
    /// again from a state subscriber on every state::connected. The link is active while the
    /// report is pending; releasing it suppresses the report, not the registration.
    virtual utils::link add_object(const std::string& name, const method_map& methods,
                                   const completion_handler& handler) = 0;

    /// Withdraws the object called `name`. With `stop_serving` true, calls that arrive while the
    /// removal is under way are answered msg::not_found; with false they still reach their
    /// handlers, but once the object is gone the bus passes on no answer of it, and their callers
    /// wait for their own time limits. `handler` gets success, or
    ///   msg::not_found             no such object here (or it is being removed already), or it was
    ///                              never registered with the bus;
    ///   msg::connection_failed     not connected; the object is forgotten all the same;
    ///   msg::no_response           the daemon said success but named no object; the object is
    ///                              forgotten all the same;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           cancel() ended it;
    ///   any other msg              the status with which the daemon refused.
    /// The name may be published anew at once. Link as for add_object(). Any thread.
    virtual utils::link del_object(const std::string& name, bool stop_serving,
                                   const completion_handler& handler) = 0;

    /// Ends everything outstanding, before it returns and on the calling thread: automatic
    /// reconnection stops, pending calls and operations get generic::aborted, connect handlers
    /// generic::aborted, disconnect handlers success, and the state becomes `disconnected`.
    /// Published objects are no longer served; their names are free from the next
    /// state::connected on. Everything already handed to the application's loop falls silent. The
    /// client can be used again afterwards. It never waits for the bus, nor for a handler that has
    /// begun on the application's loop when another thread calls cancel(): so the last reply that
    /// invoke_each() reports may be handled there while the call is reported as aborted here. What
    /// a handler throws, and std::bad_alloc, passes through; the client can be used again after
    /// another cancel(), which does the rest. So may a handler that it calls do, and then use the
    /// client: what is left is ended by the inner one.
    virtual void cancel() = 0;

    /// As invoke(), for replies that are wanted when they come, or are many: `each` is called on
    /// the application's loop with every reply as it arrives, and `handler` with the outcome after
    /// the last of them. Nothing is kept of a reply that `each` has got. One that cannot be decoded
    /// is an empty table, and makes the outcome msg::parse_error. Those that arrive before a time
    /// limit, before the end of the connection or before cancel() are told, unlike invoke()'s. Both
    /// may be empty; neither is called any more once the link is released, a call that has begun
    /// aside.
    ///
    /// A client that does not override it calls invoke() and tells the replies at the end.
    virtual utils::link invoke_each(const std::string& path, const std::string& method,
                                    const std::multimap<std::string, blob::attr>& args,
                                    const reply_handler& each, const completion_handler& handler,
                                    const std::chrono::seconds& timeout);

    /// The event loop that the client was made with, where every callback runs; empty when it has
    /// been destroyed. For timers and tasks of code that is given only the client.
    /// Thread: any.
    ///
    /// A client that does not override it returns an empty pointer.
    virtual std::weak_ptr<utils::event_loop> get_event_loop() const;
};

/// One incoming call being served, handed to a method handler.
///
/// It may be kept and answered later, from any thread; all operations may run on any threads at
/// once. The call is completed exactly once: by the first respond(), or with success when the last
/// owner lets the context go.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API client::exchange_ctx {
public:
    virtual ~exchange_ctx() = default;

    exchange_ctx(const exchange_ctx&) = delete;
    exchange_ctx& operator=(const exchange_ctx&) = delete;

    /// Whether answering is no longer possible: the call was completed, or the connection that
    /// carried it has ended. It may change at any moment.
    virtual bool expired() const = 0;

    /// Sends one data reply; any number may precede respond(), and all sent before it reach the
    /// caller before the completion. `handler` is called once on the application's loop with
    /// success when the reply was handed to the bus, or
    ///   msg::connection_failed     the context has expired;
    ///   msg::parse_error           `data` cannot be encoded (an empty attr);
    ///   msg::invalid_argument      the encoded reply exceeds the bus limit of 1,048,576 bytes, or
    ///                              libubox has no memory to make it longer; it is not sent and
    ///                              the call stays open;
    ///   msg::no_response           writing to the bus failed;
    ///   msg::no_memory             memory ran out on the private thread;
    ///   generic::aborted           client::cancel() ended it.
    /// It is not called when the connection ends between the call and the sending, nor when the
    /// client is being cancelled. It may be empty, and the link is then empty. The link is active
    /// while the report is pending; releasing it suppresses the report, not the reply.
    virtual utils::link send(std::multimap<std::string, blob::attr> data,
                             const completion_handler& handler) = 0;

    /// Completes the call with `status`. Statuses that the bus does not carry (every code that is
    /// not of error::msg_category, and msg::no_memory, parse_error and system_error) reach the
    /// caller as msg::unknown_error. Does nothing when expired.
    virtual void respond(const std::error_code& status) = 0;

    /// Whether the call can still be answered: !expired().
    operator bool() const { return !expired(); }

    /// The call's arguments, decoded. The context's owner may move them out.
    std::multimap<std::string, blob::attr> args;

protected:
    explicit exchange_ctx(std::multimap<std::string, blob::attr>&& arguments)
        : args(std::move(arguments)) {}
};

} // namespace tarn
