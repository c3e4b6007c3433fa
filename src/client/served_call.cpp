/// The steps of an incoming call.
#include "client/served_call.h"

#include "client/app_side.h"
#include "client/loop_side.h"

#include <algorithm>
#include <utility>

namespace tarn {

served_call::served_call(app_side& app, loop_side& loop, connection_id carried_by,
                         const ubus_request_data& deferred, std::size_t called,
                         std::shared_ptr<ubus_object_ctx> object)
    : connection(carried_by)
    , request(deferred)
    , method(called)
    , records(std::move(object))
    , app_(app)
    , loop_(loop) {
    // These belong to libubus and are valid only during its callback.
    request.acl = {};
    request.fd = -1;
    request.req_fd = -1;
}

void served_call::dispatch() {
    app_.dispatch_call(*this);
}

void served_call::dispatch_unreported() noexcept {
    app_.drop_call(*this);
}

void served_call::answer() {
    loop_.complete_sync(*this);
}

void open_calls::note(const std::shared_ptr<served_call>& call) {
    if (calls_.size() >= tidy_at_) {
        const auto settled = [](const std::weak_ptr<served_call>& listed) {
            const auto alive = listed.lock();
            return !alive || alive->settled;
        };
        calls_.erase(std::remove_if(calls_.begin(), calls_.end(), settled), calls_.end());
        tidy_at_ = std::max<std::size_t>(64, 2 * calls_.size());
    }
    calls_.push_back(call);
}

void open_calls::refuse(ubus_context* bus, int status) {
    for (const auto& listed : calls_) {
        const auto call = listed.lock();
        if (call && !call->settled.exchange(true)) {
            ubus_complete_deferred_request(bus, &call->request, status);
        }
    }
    calls_.clear();
}

} // namespace tarn
