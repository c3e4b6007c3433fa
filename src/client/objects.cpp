/// Published objects: registration, withdrawal, and the way of an incoming call to its handler.
#include "client/client_impl.h"

#include "blob/message_size.h"
#include "blob/policy.h"
#include "client/bus_name.h"
#include "client/callback_gate.h"
#include "tarn/error.h"
#include "tarn/uloop.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

namespace tarn {

namespace {

constexpr int answer_not_found = 4;        // UBUS_STATUS_NOT_FOUND
constexpr int answer_method_not_found = 3; // UBUS_STATUS_METHOD_NOT_FOUND
constexpr int answer_unknown_error = 9;    // UBUS_STATUS_UNKNOWN_ERROR

/// The method and policy arrays and the records that point to them.
/// Throws std::logic_error for a policy type that is no stored type.
void build_records(ubus_object_ctx& records, ubus_handler_t handler) {
    records.methods.clear();
    records.policies.clear();
    records.methods.reserve(records.method_policies.size());
    for (const auto& [name, policy] : records.method_policies) {
        ubus_method method{};
        method.name = name.c_str();
        method.handler = handler;
        if (!policy.empty()) {
            auto& fields = records.policies.emplace_back(blob::detail::policy_records(policy));
            method.policy = fields.data();
            method.n_policy = static_cast<int>(fields.size());
        }
        records.methods.push_back(method);
    }
    records.type = {};
    records.type.name = records.name.c_str();
    records.type.methods = records.methods.data();
    records.type.n_methods = static_cast<int>(records.methods.size());
    records.object = {};
    records.object.name = records.name.c_str();
    records.object.type = &records.type;
    records.object.methods = records.methods.data();
    records.object.n_methods = static_cast<int>(records.methods.size());
}

/// The same for the names of methods and of the fields that they expect.
bool any_name_has_nul(const client::method_map& methods) {
    return std::any_of(methods.begin(), methods.end(), [](const auto& method) {
        const client::method_policy& fields = method.second.second;
        return has_nul(method.first) ||
               std::any_of(fields.begin(), fields.end(),
                           [](const auto& field) { return has_nul(field.first); });
    });
}

/// Forgets settled calls every now and then.
void tidy_calls(ubus_object_ctx& records) {
    auto& calls = records.calls;
    if (calls.size() >= records.tidy_calls_at) {
        const auto settled = [](const std::weak_ptr<incoming_call>& listed) {
            const auto alive = listed.lock();
            return !alive || alive->settled;
        };
        calls.erase(std::remove_if(calls.begin(), calls.end(), settled), calls.end());
        records.tidy_calls_at = std::max<std::size_t>(64, 2 * calls.size());
    }
}

} // namespace

utils::link client_impl::add_object(const std::string& name, const method_map& methods,
                                    const completion_handler& handler) {
    if (get_tracker().expired()) {
        return report_later(handler, error::generic::aborted);
    }
    if (has_nul(name) || any_name_has_nul(methods)) {
        return report_later(handler, error::msg::invalid_argument);
    }
    auto records = std::make_shared<ubus_object_ctx>();
    records->name = name;
    auto object = std::make_shared<object_ctx>();
    object->name = name;
    object->ubus_ctx = records;
    for (const auto& [method, description] : methods) {
        object->handlers.emplace(method, description.first);
        records->method_policies.emplace(method, description.second);
    }
    if (!objects_.insert(object)) {
        return report_later(handler, error::msg::invalid_argument);
    }
    ticket entry;
    try {
        entry = add_handlers_.add(handler);
        utils::link pending = add_handlers_.link_to(entry);
        const std::weak_ptr<object_ctx> watched = object;
        object.reset();
        post_to_uloop([this, watched, entry] { add_object_sync(watched, entry); });
        return pending;
    } catch (...) {
        objects_.take(&records->object);
        add_handlers_.take(entry);
        throw;
    }
}

void client_impl::add_object_sync(const std::weak_ptr<object_ctx>& object, const ticket& entry) {
    std::error_code status = error::msg::connection_failed;
    std::shared_ptr<ubus_object_ctx> records;
    if (const auto alive = object.lock()) {
        records = alive->ubus_ctx;
        if (ubus_context* const bus = caught_up_bus()) {
            try {
                status = register_object(bus, records);
            } catch (const std::bad_alloc&) {
                status = error::msg::no_memory;
            }
        }
    }
    if (!status && entry.watched.expired()) {
        return;
    }
    post_from_uloop([this, status, records, entry] {
        if (status && records) {
            objects_.take(&records->object);
        }
        if (const auto handler = add_handlers_.take(entry)) {
            handler(status);
        }
    });
}

std::error_code client_impl::register_object(ubus_context* bus,
                                             const std::shared_ptr<ubus_object_ctx>& records) {
    try {
        build_records(*records, &client_impl::method_callable);
    } catch (const std::logic_error&) {
        return error::msg::invalid_argument; // a policy type that no field can have
    }
    // The daemon drops a client that sends more, and libubus does not check.
    if (message_size::publication(records->name, records->method_policies) > message_size::limit) {
        return error::msg::invalid_argument;
    }
    // Listed before it is registered: a call may arrive at once.
    const auto entry = ubus_objects_.emplace(&records->object, records).first;
    std::error_code status;
    try {
        // Kept until the connection ends if it fails half-way: libubus may know the object by then.
        retired_objects_.push_back(records);
        status = to_msg_error(ubus_add_object(bus, &records->object));
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    }
    // The key is set when libubus enters the record, whatever becomes of the request after that.
    if (!status || records->object.avl.key == nullptr) {
        retired_objects_.remove(records);
    }
    if (status) {
        ubus_objects_.erase(entry);
        if (usable_bus() != bus) {
            return error::msg::connection_failed; // lost meanwhile, whatever libubus makes of it
        }
    }
    return status;
}

utils::link client_impl::del_object(const std::string& name, bool stop_serving,
                                    const completion_handler& handler) {
    if (get_tracker().expired()) {
        return report_later(handler, error::generic::aborted);
    }
    // Everything that can fail comes before the removal begins.
    const ticket entry = del_handlers_.add(handler);
    try {
        utils::link pending = del_handlers_.link_to(entry);
        const auto target = std::make_shared<std::shared_ptr<object_ctx>>();
        uloop::ready_task task;
        task.emplace_back([this, target, stop_serving, entry] {
            del_object_sync(std::move(*target), stop_serving, entry);
        });
        *target = objects_.begin_removal(name, stop_serving);
        if (*target) {
            post_ready(std::move(task));
            return pending;
        }
    } catch (...) {
        del_handlers_.take(entry);
        throw;
    }
    del_handlers_.take(entry);
    return report_later(handler, make_error_code(error::msg::not_found));
}

void client_impl::del_object_sync(std::shared_ptr<object_ctx> object, bool stop_serving,
                                  const ticket& entry) {
    std::error_code status;
    try {
        status = unregister_object(object->ubus_ctx, stop_serving);
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    }
    // Handed on, since the application's handlers die with it: on the application's loop.
    post_from_uloop([this, status, object = std::move(object), entry] {
        objects_.take(&object->ubus_ctx->object);
        if (const auto handler = del_handlers_.take(entry)) {
            handler(status);
        }
    });
}

std::error_code client_impl::unregister_object(const std::shared_ptr<ubus_object_ctx>& records,
                                               bool stop_serving) {
    ubus_context* const bus = caught_up_bus();
    const auto entry = ubus_objects_.find(&records->object);
    const bool registered = entry != ubus_objects_.end();
    if (registered) {
        // Kept until the connection ends unless libubus has let go of it: it may still look there.
        with_reserve([&] { retired_objects_.push_back(records); });
        ubus_objects_.erase(entry);
    }
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    if (!registered) {
        return error::msg::not_found;
    }
    if (stop_serving) {
        refuse_waiting_calls(bus, *records);
    }
    const std::error_code status = to_msg_error(ubus_remove_object(bus, &records->object));
    if (!status) {
        retired_objects_.remove(records);
    } else if (usable_bus() != bus) {
        return error::msg::connection_failed; // lost meanwhile, whatever libubus makes of it
    }
    return status;
}

void client_impl::refuse_waiting_calls(ubus_context* bus, ubus_object_ctx& records) {
    // Once the object is withdrawn the daemon passes on no answer for it, and a refusal that goes
    // by way of the application's loop would come too late: the caller would wait for good.
    for (const auto& waiting : records.calls) {
        const auto call = waiting.lock();
        if (call && !call->settled.exchange(true)) {
            ubus_complete_deferred_request(bus, &call->request, answer_not_found);
        }
    }
    records.calls.clear();
}

int client_impl::method_callable(ubus_context* /*context*/, ubus_object* object,
                                 ubus_request_data* request, const char* method, blob_attr* msg) {
    return guard_callback([=] { return get_instance({}).on_call(object, request, method, msg); },
                          answer_unknown_error);
}

int client_impl::on_call(ubus_object* object, ubus_request_data* request, const char* method,
                         blob_attr* msg) {
    const auto published = ubus_objects_.find(object);
    if (published == ubus_objects_.end() || method == nullptr) {
        return answer_not_found;
    }
    const std::shared_ptr<ubus_object_ctx>& records = published->second;
    const auto found = records->method_policies.find(method);
    if (found == records->method_policies.end()) {
        return answer_method_not_found;
    }
    std::multimap<std::string, blob::attr> args;
    std::shared_ptr<incoming_call> call;
    try {
        const method_policy& policy = found->second;
        args = policy.empty() ? blob::utils::to_table(msg) : blob::utils::to_table(msg, policy);
        call = make_call(*request, *records);
    } catch (const std::exception&) {
        return to_ubus_msg_status(error::msg::parse_error); // or out of memory, which looks alike
    }
    // The name is kept by the records.
    post_from_uloop([this, &name = found->first, call, args = std::move(args), records]() mutable {
        dispatch_call(name, call, args, records);
    });
    // Last, so that a call that could not be handed on is answered with the error.
    request->deferred = true;
    return 0;
}

std::shared_ptr<incoming_call> client_impl::make_call(const ubus_request_data& request,
                                                      ubus_object_ctx& records) {
    tidy_calls(records);
    auto call = std::make_shared<incoming_call>();
    call->request = request;
    // These belong to libubus and die with its callback.
    call->request.acl = {};
    call->request.fd = -1;
    call->request.req_fd = -1;
    call->completion = std::make_shared<call_completion>();
    call->complete.emplace_back(
        [this, completion = call->completion] { complete_sync(*completion); });
    records.calls.push_back(call);
    return call;
}

void client_impl::dispatch_call(const std::string& method,
                                const std::shared_ptr<incoming_call>& call,
                                std::multimap<std::string, blob::attr>& args,
                                const std::shared_ptr<ubus_object_ctx>& records) {
    const auto object = objects_.find_active(&records->object);
    if (!object) {
        complete_call(call, error::msg::not_found, {}, records);
        return;
    }
    if (call->settled.exchange(true)) {
        return;
    }
    std::shared_ptr<exchange_ctx> ctx;
    method_handler handler;
    try {
        const auto found = object->handlers.find(method);
        if (found != object->handlers.end()) {
            handler = found->second;
        }
        ctx = std::make_shared<exchange_ctx>(*this, call, std::move(args));
    } catch (const std::bad_alloc&) {
        complete_call(call, error::msg::no_memory, connection_tracker());
        return;
    }
    if (handler) {
        handler(ctx);
    }
}

} // namespace tarn
