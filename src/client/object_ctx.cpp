/// The records of published objects.
#include "client/object_ctx.h"

#include "blob/policy.h"
#include "client/served_call.h"
#include "counted.h"

#include <algorithm>

namespace tarn {

object_ctx::object_ctx(const std::string& object_name, const client::method_map& methods)
    : name(object_name)
    , handlers(methods.size())
    , ubus_ctx(make_counted<ubus_object_ctx>()) {
    ubus_ctx->name = name;
    auto& described = ubus_ctx->described;
    described = std::vector<std::pair<std::string, client::method_policy>>(methods.size());
    std::size_t place = 0;
    for (const auto& [method, description] : methods) {
        handlers[place] = description.first;
        described[place].first = method;
        described[place].second = description.second;
        ++place;
    }
}

void ubus_object_ctx::build(ubus_handler_t handler) {
    methods = std::vector<ubus_method>(described.size());
    policies = std::vector<std::vector<blobmsg_policy>>(described.size());
    for (std::size_t place = 0; place < described.size(); ++place) {
        const auto& [method_name, policy] = described[place];
        ubus_method& method = methods[place];
        method.name = method_name.c_str();
        method.handler = handler;
        if (!policy.empty()) {
            auto& fields = policies[place] = blob::detail::policy_records(policy);
            method.policy = fields.data();
            method.n_policy = static_cast<int>(fields.size());
        }
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

std::size_t ubus_object_ctx::find(const char* method) const noexcept {
    const auto found = std::lower_bound(
        described.begin(), described.end(), method,
        [](const auto& entry, const char* wanted) { return entry.first < wanted; });
    return found != described.end() && found->first == method
               ? static_cast<std::size_t>(found - described.begin())
               : described.size();
}

} // namespace tarn
