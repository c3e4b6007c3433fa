/// The application's side of published objects.
#include "client/app_side.h"

#include "client/bus_name.h"
#include "client/handover.h"
#include "client/loop_side.h"
#include "counted.h"
#include "tarn/error.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tarn {

/// With the lock held: the object of this name that is not being removed, else null.
std::shared_ptr<object_ctx> app_side::find_object(const std::string& name) const {
    const auto found = std::find_if(objects_.begin(), objects_.end(), [&name](const auto& entry) {
        return entry.second->name == name && !entry.second->removing;
    });
    return found == objects_.end() ? nullptr : found->second;
}

utils::link app_side::add_object(const std::string& name, const client::method_map& methods,
                                 const client::completion_handler& handler) {
    if (cancelling()) {
        return report_later(handler, make_error_code(error::generic::aborted));
    }
    if (has_nul(name) || has_nul(methods)) {
        return report_later(handler, make_error_code(error::msg::invalid_argument));
    }
    const auto object = make_counted<object_ctx>(name, methods);
    const auto addition =
        make_counted<object_operation>(*this, loop_, object_operation::kind::addition, handler);
    addition->records = object->ubus_ctx;
    // Asked for before it is listed, since the link is the handler's only trace then.
    const utils::link link = addition->link();
    handover();
    const auto refused = begin_addition(object, *addition);
    handover();
    return refused ? report_later(handler, refused) : link;
}

/// One locked step: takes the name and posts the registration. Returns the reason if it cannot.
std::error_code app_side::begin_addition(const std::shared_ptr<object_ctx>& object,
                                         object_operation& addition) {
    const lock_guard guard(lock_);
    if (cancelling()) {
        return error::generic::aborted;
    }
    if (find_object(object->name)) {
        return error::msg::invalid_argument;
    }
    const auto entry = objects_.emplace(&object->ubus_ctx->object, object).first;
    if (addition.wanted()) {
        add_handlers_.add(addition);
    }
    try {
        bridge_.post_to_uloop(addition.begin_task);
    } catch (...) {
        addition.end();
        objects_.erase(entry);
        throw;
    }
    return {};
}

utils::link app_side::del_object(const std::string& name, bool stop_serving,
                                 const client::completion_handler& handler) {
    if (cancelling()) {
        return report_later(handler, make_error_code(error::generic::aborted));
    }
    const auto removal =
        make_counted<object_operation>(*this, loop_, object_operation::kind::removal, handler);
    removal->stop_serving = stop_serving;
    const utils::link link = removal->link();
    handover();
    const auto refused = begin_removal(name, *removal);
    handover();
    return refused ? report_later(handler, refused) : link;
}

/// One locked step: marks the object as being removed and posts the withdrawal. Returns the reason
/// if it cannot.
std::error_code app_side::begin_removal(const std::string& name, object_operation& removal) {
    const lock_guard guard(lock_);
    if (cancelling()) {
        return error::generic::aborted;
    }
    const auto object = find_object(name);
    if (!object) {
        return error::msg::not_found;
    }
    removal.records = object->ubus_ctx;
    bridge_.post_to_uloop(removal.begin_task);
    object->active = object->active && !removal.stop_serving;
    object->removing = true;
    if (removal.wanted()) {
        del_handlers_.add(removal);
    }
    return {};
}

/// With the lock held: forgets the object, and returns it for the caller to destroy.
std::shared_ptr<object_ctx> app_side::forget(const ubus_object_ctx& records) noexcept {
    const auto found = objects_.find(const_cast<ubus_object*>(&records.object));
    if (found == objects_.end()) {
        return nullptr;
    }
    auto forgotten = std::move(found->second);
    objects_.erase(found);
    return forgotten;
}

void app_side::complete(object_operation& operation, bool forgotten, bool reported) {
    assert_application_side();
    std::shared_ptr<object_ctx> object; // its handlers' captures are destroyed outside the lock
    std::shared_ptr<pending> ended;
    {
        const lock_guard guard(lock_);
        if (forgotten) {
            object = forget(*operation.records);
        }
        ended = operation.end();
    }
    operation.records.reset();
    object.reset();
    if (!ended) {
        return;
    }
    const auto handler = operation.take_handler();
    if (reported && handler) {
        handler(operation.status);
    }
}

void app_side::complete_addition(object_operation& addition, bool reported) {
    complete(addition, static_cast<bool>(addition.status), reported);
}

void app_side::complete_removal(object_operation& removal, bool reported) {
    complete(removal, true, reported);
}

} // namespace tarn
