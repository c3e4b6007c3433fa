/// The operations of tarn::bus, each made and passed to the application's side.
#include "client/bus_impl.h"

#include "client/app_side.h"
#include "client/bus_name.h"
#include "client/loop_bus.h"
#include "client/one_shot.h"
#include "client/standing_operations.h"
#include "counted.h"
#include "tarn/error.h"

#include <algorithm>

namespace tarn {

utils::link bus_impl::listen(const std::string& pattern, const event_handler& handler,
                             const options& how) {
    return handler ? app_.begin(*make_counted<listener>(app_, loop_, pattern, handler, how))
                   : utils::link();
}

utils::link bus_impl::send_event(const std::string& id, const table& data,
                                 const completion_handler& handler) {
    return app_.send_event(id, data, handler);
}

utils::link bus_impl::objects(const std::string& pattern, const objects_handler& handler) {
    return app_.begin(*make_counted<look_up_operation>(app_, loop_, pattern, handler));
}

utils::link bus_impl::wait_for(const std::vector<std::string>& paths,
                               const std::chrono::seconds& limit,
                               const completion_handler& handler) {
    const auto waiting = make_counted<wait_operation>(app_, loop_, paths, handler);
    if (!std::all_of(paths.begin(), paths.end(), &loop_bus::is_exact)) {
        return app_.refuse(*waiting, error::msg::invalid_argument);
    }
    if (paths.empty()) {
        return app_.refuse(*waiting, error::msg::success);
    }
    return app_.begin(*waiting, limit);
}

utils::link bus_impl::on_object(const std::string& pattern, const presence_handler& handler,
                                const options& how) {
    return handler ? app_.begin(*make_counted<presence_watch>(app_, loop_, pattern, handler, how))
                   : utils::link();
}

utils::link bus_impl::subscribe(const std::string& path, const notification_handler& handler,
                                const subscription_handler& on_change,
                                const subscribe_options& how) {
    return app_.begin(
        *make_counted<tarn::subscription>(app_, loop_, path, handler, on_change, how));
}

utils::link bus_impl::notify(const std::string& name, const std::string& method, const table& data,
                             const completion_handler& handler) {
    const auto notifying = make_counted<notify_operation>(app_, loop_, name, method, data, handler);
    return has_nul(method) ? app_.refuse(*notifying, error::msg::invalid_argument)
                           : app_.begin(*notifying);
}

utils::link bus_impl::notify(const std::string& name, const std::string& method, const table& data,
                             const std::chrono::seconds& limit, const answers_handler& handler) {
    const auto notifying = make_counted<notify_operation>(app_, loop_, name, method, data, handler);
    return has_nul(method) ? app_.refuse(*notifying, error::msg::invalid_argument)
                           : app_.begin(*notifying, limit);
}

utils::link bus_impl::on_subscribers(const std::string& name, const subscribers_handler& handler) {
    return handler ? app_.begin(*make_counted<subscribers_watch>(app_, loop_, name, handler))
                   : utils::link();
}

utils::link bus_impl::monitor(const message_handler& handler, const options& how) {
    return handler ? app_.begin(*make_counted<message_watch>(app_, loop_, handler, how))
                   : utils::link();
}

stats bus_impl::stats() const {
    tarn::stats snapshot;
    app_.counts().fill(snapshot);
    app_.bridge().fill(snapshot);
    return snapshot;
}

} // namespace tarn
