/// The table of published objects.
#include "client/object_ctx.h"

#include <algorithm>
#include <utility>

namespace tarn {

std::shared_ptr<object_ctx> object_table::find_by_name(const std::string& name) const {
    const auto found = std::find_if(objects_.begin(), objects_.end(), [&name](const auto& entry) {
        return entry.second->name == name && !entry.second->removing;
    });
    return found == objects_.end() ? nullptr : found->second;
}

bool object_table::insert(const std::shared_ptr<object_ctx>& object) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (find_by_name(object->name)) {
        return false;
    }
    objects_.emplace(&object->ubus_ctx->object, object);
    return true;
}

std::shared_ptr<object_ctx> object_table::begin_removal(const std::string& name,
                                                        bool stop_serving) {
    const std::lock_guard<std::mutex> guard(lock_);
    auto object = find_by_name(name);
    if (object) {
        object->active = !stop_serving;
        object->removing = true;
    }
    return object;
}

std::shared_ptr<object_ctx> object_table::find_active(key object) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = objects_.find(object);
    return found != objects_.end() && found->second->active ? found->second : nullptr;
}

void object_table::deactivate_all() {
    const std::lock_guard<std::mutex> guard(lock_);
    for (auto& entry : objects_) {
        entry.second->active = false;
    }
}

std::shared_ptr<object_ctx> object_table::take(key object) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = objects_.find(object);
    if (found == objects_.end()) {
        return nullptr;
    }
    auto taken = std::move(found->second);
    objects_.erase(found);
    return taken;
}

std::map<object_table::key, std::shared_ptr<object_ctx>> object_table::take_all() {
    const std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(objects_, {});
}

} // namespace tarn
