/// The inside of fake_bus.
#pragma once

#include "tarn/testing/fake_bus.h"

#include "standing.h"
#include "waiting.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tarn::testing {

/// All that a fake bus does. One lock guards it, which comes after that of the fake client: nothing
/// here calls the client with it held, nor a handler.
class fake_bus::core final : public std::enable_shared_from_this<core> {
public:
    /// Makes the exchange context of one notification.
    using context_maker = std::function<std::shared_ptr<client::exchange_ctx>(
        const std::shared_ptr<served_call>&, blob::table&&)>;

    explicit core(std::weak_ptr<utils::event_loop> loop);

    // --- for the fake client, whose lock may be held where it is not said otherwise ---

    void connection_made();
    void connection_ended();
    void published(const std::string& name, const client::method_map& methods);
    void withdrawn(const std::string& name);
    bool is_taken(const std::string& name) const;
    /// Without the client's lock, and after the connection has ended. Drops the events,
    /// notifications and messages that have not been delivered, and ends the one-shot operations.
    void cancel();
    /// Without the client's lock. False when there was nothing to end.
    bool close() noexcept;
    void set_context_maker(context_maker maker) { make_context_ = std::move(maker); }

    // --- for the test ---

    void emit(const std::string& id, const table& data);
    std::uint32_t add_object(const std::string& path, std::vector<method_info> methods);
    void remove_object(const std::string& path);
    std::vector<std::shared_ptr<const served_call>>
    notify_from(const std::string& path, const std::string& method, const table& data, bool asked);
    void set_subscribers(const std::string& name, std::size_t count);
    void answer_notification(const std::string& name, const std::string& method,
                             std::vector<outcome> answers);
    void pass(const message& passed);
    void refuse(operation what, const std::error_code& status);
    void set_stats(const tarn::stats& counted);

    std::vector<sent_event> sent_events() const;
    std::vector<notification> notifications() const;
    std::vector<std::string> subjects(standing::kind sort) const;
    std::vector<std::string> subscribed() const;
    std::vector<std::string> look_ups() const;
    std::size_t pending_waits() const;
    tarn::stats stats() const;

    // --- for the code under test ---

    utils::link stand(standing::kind sort, const std::string& subject, bool answers,
                      standing_handlers handlers);
    utils::link send_event(const std::string& id, const table& data,
                           const completion_handler& handler);
    utils::link objects(const std::string& pattern, const objects_handler& handler);
    utils::link wait_for(const std::vector<std::string>& paths, const std::chrono::seconds& limit,
                         const completion_handler& handler);
    /// `limit` is not set for one that waits for no answers.
    utils::link notify(notification sent, const answers_handler& handler);

private:
    using guard = std::lock_guard<std::mutex>;
    using standing_ptr = std::shared_ptr<standing>;
    struct wait {
        std::vector<std::string> paths;
        std::shared_ptr<waiting> operation;
    };

    void post_locked(std::function<void()> task);
    std::shared_ptr<waiting> start_locked(const completion_handler& handler);
    void end_locked(const std::shared_ptr<waiting>& operation, const std::error_code& code);
    void limit_locked(const std::shared_ptr<waiting>& operation, const std::chrono::seconds& limit);
    utils::link report(const completion_handler& handler, const std::error_code& code);

    std::error_code refusal(operation what) const;
    std::error_code check_event(const std::string& id, const table& data) const;
    const object_info* find(const std::string& path) const;
    std::map<std::string, object_info> all_objects() const;
    /// Those that are active and of this kind, without those that are not accepted.
    std::vector<standing_ptr> in_place(standing::kind sort) const;
    std::vector<standing_ptr> active() const;

    void restore(standing& each);
    void restore_follower(standing& each);
    void suspend(standing& each);
    void subscribe_now(standing& each);
    void take_out(std::map<std::string, object_info>& from, const std::string& path);
    void appeared(const object_info& object);
    void gone(const object_info& object);
    void emit_locked(const std::string& id, const table& data);
    void follow_subscribers(standing& each);
    void end_waits();
    std::vector<notify_answer> answers_to(const notification& sent, bool& all) const;

    const std::weak_ptr<utils::event_loop> loop_;
    context_maker make_context_;

    mutable std::mutex lock_;
    std::uint64_t life_ = 0; ///< changes with every cancel()
    bool connected_ = false;
    std::list<standing_ptr> standing_;
    waiting_list operations_; ///< those of one outcome
    waiting_list asked_;      ///< of these the notifications that wait for answers
    std::list<wait> waits_;

    std::uint32_t last_id_ = 0x10000000;
    std::map<std::string, object_info> others_; ///< of other processes
    std::map<std::string, object_info> own_;    ///< of the code under test
    std::map<std::string, std::size_t> subscribers_;
    std::map<std::pair<std::string, std::string>, std::vector<outcome>> answers_;
    std::map<operation, std::error_code> refusals_;
    std::vector<sent_event> sent_;
    std::vector<notification> notified_;
    std::vector<std::string> look_ups_;
    tarn::stats stats_;
};

} // namespace tarn::testing
