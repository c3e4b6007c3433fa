/// The objects of the fake bus, and who waits for them.
#include "fake_bus_core.h"
#include "fake_bus_reports.h"
#include "transfer.h"

#include "tarn/error.h"
#include "tarn/link.h"

#include <algorithm>
#include <utility>

namespace tarn::testing {

using misc::aggregate_adapter;
using kind = standing::kind;

void fake_bus::core::published(const std::string& name, const client::method_map& methods) {
    const guard locked(lock_);
    object_info object{name, ++last_id_, last_id_, {}};
    for (const auto& [method, served] : methods) {
        method_info described{method, {}};
        for (const auto& [field, type] : served.second) {
            described.fields.push_back(
                {field, static_cast<field_type>(blob::utils::to_blobmsg_type(type))});
        }
        object.methods.push_back(std::move(described));
    }
    own_[name] = object;
    appeared(object);
}

void fake_bus::core::withdrawn(const std::string& name) {
    const guard locked(lock_);
    take_out(own_, name);
}

bool fake_bus::core::is_taken(const std::string& name) const {
    const guard locked(lock_);
    return others_.count(name) != 0;
}

std::uint32_t fake_bus::core::add_object(const std::string& path,
                                         std::vector<method_info> methods) {
    remove_object(path);
    const guard locked(lock_);
    const object_info object{path, ++last_id_, last_id_, std::move(methods)};
    others_[path] = object;
    appeared(object);
    return object.id;
}

void fake_bus::core::remove_object(const std::string& path) {
    const guard locked(lock_);
    take_out(others_, path);
}

void fake_bus::core::take_out(std::map<std::string, object_info>& from, const std::string& path) {
    const auto found = from.find(path);
    if (found == from.end()) {
        return;
    }
    const object_info object = found->second;
    from.erase(found);
    gone(object);
}

void fake_bus::core::appeared(const object_info& object) {
    emit_locked("ubus.object.add", {{"id", object.id}, {"path", object.path}});
    for (const auto& each : in_place(kind::follower)) {
        if (matches(each->subject, object.path)) {
            report_presence(*each, object, true);
        }
    }
    for (const auto& each : in_place(kind::subscription)) {
        if (each->subject == object.path) {
            subscribe_now(*each);
        }
    }
    for (const auto& each : active()) {
        follow_subscribers(*each);
    }
    end_waits();
}

void fake_bus::core::gone(const object_info& object) {
    emit_locked("ubus.object.remove", {{"id", object.id}, {"path", object.path}});
    for (const auto& each : active()) {
        if (each->sort == kind::follower && each->present().count(object.path) != 0) {
            report_presence(*each, object, false);
        } else if (each->sort == kind::subscription && each->subject == object.path &&
                   !each->present().empty()) {
            each->add_change({}, std::nullopt,
                             change_report(bus::subscription::lost, error::msg::not_found));
        }
        follow_subscribers(*each);
    }
}

utils::link fake_bus::core::objects(const std::string& pattern, const objects_handler& handler) {
    std::error_code code = error::msg::success;
    std::vector<object_info> found;
    {
        const guard locked(lock_);
        look_ups_.push_back(pattern);
        code = !is_pattern(pattern) ? make_error_code(error::msg::invalid_argument)
               : !connected_        ? make_error_code(error::msg::connection_failed)
                                    : refusal(operation::objects);
        if (!code) {
            for (const auto& [path, object] : all_objects()) {
                if (matches(pattern, path)) {
                    found.push_back(object);
                }
            }
        }
    }
    if (!handler) {
        return {};
    }
    return report(
        [handler, found = std::move(found)](const std::error_code& outcome) {
            handler(outcome ? std::vector<object_info>() : found, outcome);
        },
        code);
}

utils::link fake_bus::core::wait_for(const std::vector<std::string>& paths,
                                     const std::chrono::seconds& limit,
                                     const completion_handler& handler) {
    const guard locked(lock_);
    const auto operation = start_locked(handler);
    if (!std::all_of(paths.begin(), paths.end(), is_path)) {
        end_locked(operation, error::msg::invalid_argument);
    } else if (paths.empty()) {
        end_locked(operation, error::msg::success);
    } else {
        limit_locked(operation, limit);
        waits_.push_back({paths, operation});
        end_waits();
    }
    return aggregate_adapter<utils::link>(operation);
}

void fake_bus::core::end_waits() {
    if (!connected_) {
        return;
    }
    waits_.remove_if([this](const wait& each) {
        const bool all_there =
            std::all_of(each.paths.begin(), each.paths.end(),
                        [this](const std::string& path) { return find(path) != nullptr; });
        const std::error_code refused = refusal(operation::follow);
        if (!all_there && !refused) {
            return false;
        }
        end_locked(each.operation, all_there ? make_error_code(error::msg::success) : refused);
        return true;
    });
}

} // namespace tarn::testing
