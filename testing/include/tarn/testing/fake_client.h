/// A tarn::client without a bus: calls are answered by a script, and the test decides what becomes
/// of the connection.
#pragma once

#include "tarn/client.h"
#include "tarn/event_loop.h"
#include "tarn/testing/fake_bus.h"
#include "tarn/testing/served_call.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace tarn::testing {

/// Replaces tarn::client in the tests of code that is given a `tarn::client&`. There is no bus
/// and no thread: everything happens on the event loop that the test passes, usually a
/// manual_loop, when the test runs its tasks.
///
/// It behaves as the real client does on an undisturbed bus: the states and their order,
/// callbacks on the loop and never inside the call, links, time limits (by timers of the loop),
/// automatic reconnection, names, cancel(). Values pass through the encoding of the bus, so a
/// policy, a type without an encoding or a signed integer ends up as there. What races of threads
/// would do to the real one is not shown.
///
/// Thread: the functions of tarn::client, any; the others, the one that plays the loop's thread.
/// The client must outlive the code under test; the loop must outlive the client.
class fake_client final : public client {
public:
    /// Answers one call with these arguments.
    using responder = std::function<outcome(const blob::table& args)>;

    /// A call that the code under test has made.
    struct call {
        std::string path;             ///< the path of the object
        std::string method;           ///< the name of the method
        blob::table args;             ///< the arguments, as the code under test passed them
        std::chrono::seconds timeout; ///< the time limit; zero means none
    };

    /// What an attempt to connect finds.
    enum class bus {
        present, ///< it succeeds
        absent,  ///< it fails
        silent,  ///< it waits until set_bus() says something else
    };

    /// Disconnected, with a bus that is present.
    explicit fake_client(const std::shared_ptr<utils::event_loop>& loop);
    ~fake_client() override;
    fake_client(const fake_client&) = delete;
    fake_client& operator=(const fake_client&) = delete;

    // --- the script ---

    /// From now on every call of `method` at `path` ends with `what`, or with what `answer`
    /// returns, which is called on the loop. Replaces what was said before. A call that nothing is
    /// scripted for reaches the object of this path that the code under test has published; else it
    /// ends with msg::not_found, or with msg::method_not_found where another method of `path` is
    /// scripted. A call of a pattern (`demo*`) reaches the last path that it matches, of those that
    /// are scripted or published, unless the pattern itself is scripted.
    void on(const std::string& path, const std::string& method, outcome what);
    /// The same, with an outcome computed for each call from its arguments.
    void on(const std::string& path, const std::string& method, responder answer);

    /// The next call of it ends with `what`; several of these queue up, ahead of what on() says.
    void once(const std::string& path, const std::string& method, outcome what);

    // --- the connection ---

    /// What attempts find from now on. An existing connection stays.
    void set_bus(bus found);

    /// Ends the connection as a daemon that dies does. A no-op unless connected.
    void lose_connection();

    // --- published objects ---

    /// The names of the published objects, in alphabetical order.
    std::vector<std::string> published() const;

    /// From now on add_object() is refused with `status`, as by a daemon's access rules; with
    /// success it is accepted again.
    void refuse_objects(const std::error_code& status);

    /// Calls a published object as another client of the bus would: its handler runs on the loop.
    /// An unknown object or method, and arguments that the method's policy refuses, end the call
    /// with the status that the caller would get.
    std::shared_ptr<const served_call> call_published(const std::string& name,
                                                      const std::string& method,
                                                      const blob::table& args = {});

    // --- what has happened ---

    /// All calls so far, in order, also those that were made without a connection.
    std::vector<call> calls() const;
    /// Calls that have not ended.
    std::size_t pending_calls() const;
    /// All states so far, the one of the beginning first.
    std::vector<state> states() const;

    // --- tarn::client ---

    utils::link connect(const completion_handler& handler) override;
    utils::link auto_connect(const backoff_function& backoff) override;
    utils::link disconnect(const completion_handler& handler) override;
    utils::link notify_on_state_change(const state_handler& handler) override;
    state get_state() const override;
    bool is_active() const override;
    /// As client::invoke(), answered by the script.
    utils::link invoke(const std::string& path, const std::string& method, const blob::table& args,
                       const result_handler& handler, const std::chrono::seconds& timeout) override;
    utils::link add_object(const std::string& name, const method_map& methods,
                           const completion_handler& handler) override;
    utils::link del_object(const std::string& name, bool stop_serving,
                           const completion_handler& handler) override;
    void cancel() override;
    std::weak_ptr<utils::event_loop> get_event_loop() const override;
    /// The rest of the bus; see fake_bus.h.
    fake_bus& get_bus() override;

private:
    class core;

    // Shared with links, contexts and tasks, which may outlive the client.
    const std::shared_ptr<core> core_;
    fake_bus rest_;
};

} // namespace tarn::testing
