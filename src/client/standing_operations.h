/// The kinds of standing operations. Members without a remark are set when they are made; the
/// handlers are guarded by the lock of the base, the rest is the loop thread's.
#pragma once

#include "client/list_entry.h"
#include "client/served_call.h"
#include "client/standing.h"
#include "tarn/bus.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <system_error>

namespace tarn {

struct subscriber_record;

/// Whether `name` is `pattern`, or begins with what precedes a `*` at its end.
bool matches(const std::string& pattern, const std::string& name);

/// An event, decoded once for all who listen.
struct event {
    std::string id;
    bus::table data;
};

class listener final : public standing {
public:
    listener(app_side& app, loop_bus& loop, const std::string& events,
             const bus::event_handler& handler, const bus::options& how);

    void tell(const std::shared_ptr<const event>& received);

    const std::string pattern;
    list_entry<listener> place;

private:
    void begin() override;
    void end() override;
    void deliver(const standing_report& report) override;
};

/// Follows the objects of a pattern.
class presence_watch final : public standing {
public:
    presence_watch(app_side& app, loop_bus& loop, const std::string& paths,
                   const bus::presence_handler& handler, const bus::options& how);

    void appeared(std::uint32_t id, const std::string& path);
    void gone(std::uint32_t id);
    void all_gone();

    const std::string pattern;
    list_entry<presence_watch> place;

private:
    using path_ptr = std::shared_ptr<const std::string>;

    void begin() override;
    void end() override;
    void deliver(const standing_report& report) override;
    void tell(bus::presence what, std::uint32_t id, const path_ptr& path);

    std::map<std::uint32_t, path_ptr> present_;
};

/// One notification on its way to its handler.
struct notification {
    std::string method;
    bus::table args;
    std::shared_ptr<served_call> call; ///< null when it is not to be answered
};

/// A subscription to the object at one path.
class subscription final : public standing {
public:
    subscription(app_side& app, loop_bus& loop, const std::string& target,
                 const bus::notification_handler& handler,
                 const bus::subscription_handler& on_change, const bus::subscribe_options& how);

    void tell_change(bus::subscription now, const std::error_code& code);
    void tell(const std::shared_ptr<notification>& received);
    /// The daemon has taken the subscription to `id`.
    void confirm(std::uint32_t id);
    /// The object with this id has gone.
    void lose(std::uint32_t id);

    const std::string path;
    const bool has_handler; ///< whether there is a handler for notifications
    const bool answers;     ///< whether it answers them
    std::uint32_t subscribed_to = 0;
    /// What is being subscribed to. Notifications, and the end of the object, may arrive inside of
    /// the request.
    std::uint32_t attempted = 0;
    std::uint32_t wanted = 0;            ///< an object that has appeared at the path
    subscriber_record* record = nullptr; ///< of this connection
    open_calls calls;                    ///< notifications that the handler is to answer
    list_entry<subscription> place;

private:
    void begin() override;
    void end() override;
    void deliver(const standing_report& report) override;
    void discard(const standing_report& item) noexcept override;
};

/// Follows whether an object of our own has subscribers.
class subscribers_watch final : public standing {
public:
    subscribers_watch(app_side& app, loop_bus& loop, const std::string& object,
                      const bus::subscribers_handler& handler);

    void tell(bool has_subscribers);

    const std::string name;
    list_entry<subscribers_watch> place;

private:
    void begin() override;
    void end() override;
    void deliver(const standing_report& report) override;

    bool told_ = false;
};

/// Receives the messages that pass the daemon.
class message_watch final : public standing {
public:
    message_watch(app_side& app, loop_bus& loop, const bus::message_handler& handler,
                  const bus::options& how);

    void tell(const std::shared_ptr<const bus::message>& passed);

    list_entry<message_watch> place;

private:
    void begin() override;
    void end() override;
    void deliver(const standing_report& report) override;
};

} // namespace tarn
