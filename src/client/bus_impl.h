/// The one implementation of tarn::bus, a part of the client's.
#pragma once

#include "tarn/bus.h"

namespace tarn {

class app_side;
class loop_bus;

class bus_impl final : public bus {
public:
    bus_impl(app_side& app, loop_bus& loop)
        : app_(app)
        , loop_(loop) {}

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
    app_side& app_;
    loop_bus& loop_;
};

} // namespace tarn
