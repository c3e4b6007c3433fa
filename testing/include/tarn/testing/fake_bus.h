/// The rest of the bus for fake_client: a test sends events and notifications, puts objects there
/// and takes them away, and sees what the code under test has asked for.
#pragma once

#include "tarn/bus.h"
#include "tarn/event_loop.h"
#include "tarn/testing/served_call.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace tarn::testing {

/// What fake_client::get_bus() gives. The functions below play the other processes of the bus, and
/// what they do reaches the code under test by tasks of the loop, as from a real bus: standing
/// operations are in place while the client is connected, and only then; they are restored with
/// every connection, before its state is reported; undelivered reports are limited in number.
///
/// The objects that are there are those of add_object() and those that the code under test has
/// published. The paths that calls are scripted for are not among them. What exceeds the limits of
/// the bus in size is not refused here.
///
/// Thread: the functions of tarn::bus, any; the others, the one that plays the loop's thread. Lives
/// as long as its fake_client.
class fake_bus final : public bus {
public:
    fake_bus(const fake_bus&) = delete;
    fake_bus& operator=(const fake_bus&) = delete;
    ~fake_bus() override;

    // --- events ---

    /// An event of another process: each listener of a pattern that matches gets it. A no-op
    /// without a connection.
    /// Errors: throws std::logic_error when `data` cannot be encoded.
    void emit(const std::string& id, const table& data = {});

    /// An event that the code under test has sent.
    struct sent_event {
        std::string id; ///< such as "network.interface"
        table data;     ///< as the code under test passed it
    };
    /// All events so far, in order, also those that were sent without a connection.
    std::vector<sent_event> sent_events() const;

    // --- objects ---

    /// Another process publishes an object under `path`, in place of one that is there. Returns its
    /// id. It stays until remove_object(), through the connections of the client.
    std::uint32_t add_object(const std::string& path, std::vector<method_info> methods = {});
    /// The object goes. A no-op when there is none of another process.
    void remove_object(const std::string& path);

    // --- subscriptions ---

    /// The object of another process at `path` notifies its subscribers and wants no answer.
    /// Errors: throws std::logic_error when `data` cannot be encoded.
    void notify_from(const std::string& path, const std::string& method, const table& data = {});
    /// The same for one that waits for answers. Returns one element for each subscription of the
    /// code under test, in the order in which they were made.
    std::vector<std::shared_ptr<const served_call>>
    ask_from(const std::string& path, const std::string& method, const table& data = {});

    // --- the publisher's side ---

    /// From now on the object `name` of the code under test has so many subscribers: at once if it
    /// is published, and whenever it is published again.
    void set_subscribers(const std::string& name, std::size_t count);
    /// How the subscribers answer `method` of the object `name` from now on: one element each,
    /// however many subscribers there are. `never` in one makes the notification wait for its time
    /// limit; then that one is not among the answers, or, when it has replies, is with
    /// msg::timeout. What nothing is said of, every subscriber answers with success and without
    /// data.
    void answer_notification(const std::string& name, const std::string& method,
                             std::vector<outcome> answers);

    /// A notification that the code under test has sent.
    struct notification {
        std::string name;   ///< the object
        std::string method; ///< the name of the notification
        table data;         ///< as the code under test passed it
        /// The time limit of one that waits for answers.
        std::optional<std::chrono::seconds> limit;
    };
    /// All notifications so far, in order, also those that were refused.
    std::vector<notification> notifications() const;

    // --- the monitor ---

    /// A message passes the daemon: each monitor gets it. A no-op without a connection.
    void pass(const message& passed);

    // --- refusals ---

    /// What a daemon may refuse.
    enum class operation {
        listen,     ///< listen()
        send_event, ///< send_event()
        objects,    ///< objects()
        follow,     ///< following which objects appear: on_object(), wait_for(), subscribe()
        subscribe,  ///< subscribe()
        monitor,    ///< monitor()
    };
    /// From now on `what` is refused with `status`, as by a daemon's access rules; with success it
    /// is accepted again. Standing operations ask anew with every connection.
    void refuse(operation what, const std::error_code& status);

    // --- what is asked for ---

    /// The patterns of the listeners that are not released, in the order of their start.
    std::vector<std::string> listening() const;
    /// The patterns of on_object(), likewise.
    std::vector<std::string> following() const;
    /// The paths that are subscribed at the moment, once for each subscription.
    std::vector<std::string> subscribed() const;
    /// The names of the objects whose subscribers are followed, likewise.
    std::vector<std::string> following_subscribers() const;
    /// Monitors that are not released.
    std::size_t monitors() const;
    /// The patterns of all look-ups with objects() so far.
    std::vector<std::string> look_ups() const;
    /// The waits that have not ended.
    std::size_t pending_waits() const;

    /// What stats() returns from now on; nothing is counted here.
    void set_stats(const tarn::stats& counted);

    // --- tarn::bus ---

    /// \cond
    using bus::listen;
    using bus::monitor;
    using bus::on_object;
    using bus::subscribe;
    /// \endcond
    utils::link listen(const std::string& pattern, const event_handler& handler,
                       const options& how) override;
    utils::link send_event(const std::string& id, const table& data,
                           const completion_handler& handler) override;
    utils::link objects(const std::string& pattern, const objects_handler& handler) override;
    utils::link wait_for(const std::vector<std::string>& paths, const std::chrono::seconds& limit,
                         const completion_handler& handler) override;
    utils::link on_object(const std::string& pattern, const presence_handler& handler,
                          const options& how) override;
    utils::link subscribe(const std::string& path, const notification_handler& handler,
                          const subscription_handler& on_change,
                          const subscribe_options& how) override;
    utils::link notify(const std::string& name, const std::string& method, const table& data,
                       const completion_handler& handler) override;
    utils::link notify(const std::string& name, const std::string& method, const table& data,
                       const std::chrono::seconds& limit, const answers_handler& handler) override;
    utils::link on_subscribers(const std::string& name,
                               const subscribers_handler& handler) override;
    utils::link monitor(const message_handler& handler, const options& how) override;
    tarn::stats stats() const override;

private:
    friend class fake_client;
    class core;

    explicit fake_bus(std::shared_ptr<core> shared);

    // Shared with links and tasks, which may outlive the client.
    const std::shared_ptr<core> core_;
};

} // namespace tarn::testing
