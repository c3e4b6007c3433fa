/// The steps of an incoming call.
#include "client/served_call.h"

#include "client/app_side.h"
#include "client/loop_side.h"

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

} // namespace tarn
