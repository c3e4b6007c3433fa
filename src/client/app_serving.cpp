/// The application's side of served calls: handed to their methods, and answered.
#include "client/app_side.h"

#include "client/exchange_ctx.h"
#include "client/loop_side.h"
#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <utility>

namespace tarn {

void app_side::dispatch_call(served_call& call) {
    assert_application_side();
    std::shared_ptr<object_ctx> object;
    {
        const lock_guard guard(lock_);
        const auto found = objects_.find(&call.records->object);
        if (found != objects_.end() && found->second->active) {
            object = found->second;
        }
    }
    if (!object) {
        call.refusal = true;
        complete_call(call, error::msg::not_found);
        return;
    }
    if (call.settled.exchange(true)) {
        return; // refused meanwhile
    }
    counts_.calls_served.add();
    std::shared_ptr<exchange_ctx> ctx;
    client::method_handler handler;
    try {
        handler = object->handlers[call.method];
        ctx = make_counted<exchange_ctx>(*this, self_of(call));
    } catch (const std::bad_alloc&) {
        complete_call(call, error::msg::no_memory);
        return;
    } catch (...) {
        complete_call(call, error::msg::unknown_error); // the copy of a handler
        throw;
    }
    if (handler) {
        handler(ctx);
    }
}

void app_side::drop_call(served_call& call) noexcept {
    if (!call.settled.exchange(true)) {
        complete_call(call, error::msg::unknown_error);
    }
}

void app_side::complete_call(served_call& call, const std::error_code& status) noexcept {
    call.status = status;
    bridge_.post_ready(call.answer_task);
}

utils::link app_side::send(const std::shared_ptr<served_call>& call,
                           std::multimap<std::string, blob::attr>&& data,
                           const client::completion_handler& handler) {
    const auto operation =
        make_counted<send_operation>(*this, loop_, call, std::move(data), handler);
    const utils::link link = operation->link();
    const lock_guard guard(lock_);
    if (cancelling()) {
        return {};
    }
    if (operation->wanted()) {
        send_handlers_.add(*operation);
    }
    try {
        bridge_.post_to_uloop(operation->begin_task);
    } catch (...) {
        operation->end();
        throw;
    }
    return link;
}

} // namespace tarn
