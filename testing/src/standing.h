/// A standing operation of the fake bus: its handlers, and the reports that wait for the loop.
#pragma once

#include "tarn/bus.h"
#include "tarn/event_loop.h"
#include "tarn/link.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tarn::testing {

/// The handlers of one operation, whichever it is.
struct standing_handlers {
    bus::options how = {};
    bus::event_handler event = {};
    bus::presence_handler presence = {};
    bus::notification_handler notification = {};
    bus::subscription_handler change = {};
    bus::subscribers_handler subscribers = {};
    bus::message_handler message = {};
};

/// One standing operation, and its link. Its own lock is the innermost one, and never held while a
/// handler or a report runs or is destroyed: a report may own an exchange context, whose end takes
/// the client's lock.
class standing final : public utils::link::impl, public std::enable_shared_from_this<standing> {
public:
    enum class kind { listener, follower, subscription, publisher, monitor };
    using report = std::function<void(const standing_handlers&)>;

    standing(std::weak_ptr<utils::event_loop> loop, kind sort, std::string subject, bool answers,
             standing_handlers handlers);

    const kind sort;
    const std::string subject; ///< the pattern, path or name
    const bool answers;

    /// Whether the daemon has accepted it on this connection. Guarded by the lock of the bus.
    bool in_place = false;

    /// Adds a report that is never dropped.
    void add(report next);
    /// Adds a report that counts for the limit. `dropped` is called if it is dropped for that.
    void add_limited(report next, std::function<void()> dropped = {});
    /// Adds the report of a change: `key` has got this id, or is gone without one.
    void add_change(const std::string& key, std::optional<std::uint32_t> id, report next);
    /// What is there once all reports that wait have been delivered.
    std::map<std::string, std::uint32_t> present() const;
    /// Drops the reports that wait and count for the limit.
    void drop_limited();

    void release() override;
    bool active() const override;

private:
    struct entry {
        report deliver;
        bool limited = false;
        std::function<void()> dropped = {};
    };
    void post();
    void deliver_one();

    const std::weak_ptr<utils::event_loop> loop_;
    mutable std::mutex lock_;
    std::shared_ptr<const standing_handlers> handlers_; ///< null once it is released
    std::deque<entry> entries_;
    std::size_t limited_ = 0; ///< how many of them count for the limit
    std::uint64_t dropped_ = 0;
    std::map<std::string, std::uint32_t> present_;
};

} // namespace tarn::testing
