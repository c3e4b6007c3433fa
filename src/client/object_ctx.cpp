/// The records of published objects.
#include "client/object_ctx.h"

#include "blob/policy.h"
#include "client/served_call.h"

#include <algorithm>

namespace tarn {

object_ctx::object_ctx(const std::string& object_name, const client::method_map& methods)
    : name(object_name)
    , ubus_ctx(std::make_shared<ubus_object_ctx>()) {
    ubus_ctx->name = name;
    for (const auto& [method, description] : methods) {
        handlers.emplace(method, description.first);
        ubus_ctx->method_policies.emplace(method, description.second);
    }
}

void ubus_object_ctx::build(ubus_handler_t handler) {
    methods.clear();
    policies.clear();
    methods.reserve(method_policies.size());
    for (const auto& [method_name, policy] : method_policies) {
        ubus_method method{};
        method.name = method_name.c_str();
        method.handler = handler;
        if (!policy.empty()) {
            auto& fields = policies.emplace_back(blob::detail::policy_records(policy));
            method.policy = fields.data();
            method.n_policy = static_cast<int>(fields.size());
        }
        methods.push_back(method);
    }
    type = {};
    type.name = name.c_str();
    type.methods = methods.data();
    type.n_methods = static_cast<int>(methods.size());
    object = {};
    object.name = name.c_str();
    object.type = &type;
    object.methods = methods.data();
    object.n_methods = static_cast<int>(methods.size());
}

void ubus_object_ctx::note_call(const std::shared_ptr<served_call>& call) {
    if (calls.size() >= tidy_calls_at) {
        const auto settled = [](const std::weak_ptr<served_call>& listed) {
            const auto alive = listed.lock();
            return !alive || alive->settled;
        };
        calls.erase(std::remove_if(calls.begin(), calls.end(), settled), calls.end());
        tidy_calls_at = std::max<std::size_t>(64, 2 * calls.size());
    }
    calls.push_back(call);
}

} // namespace tarn
