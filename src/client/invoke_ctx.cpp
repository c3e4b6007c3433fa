/// The steps of an outgoing call.
#include "client/invoke_ctx.h"

#include "client/app_side.h"
#include "client/loop_side.h"
#include "tarn/error.h"

#include <utility>

namespace tarn {

invoke_ctx::invoke_ctx(app_side& app, loop_side& loop, const std::string& called_path,
                       const std::string& called_method,
                       const std::multimap<std::string, blob::attr>& call_args,
                       const client::result_handler& result_handler,
                       const std::shared_ptr<const client::reply_handler>& reply_handler)
    : handler(result_handler)
    , each(reply_handler)
    , tells_each(reply_handler != nullptr)
    , path(called_path)
    , method(called_method)
    , args(call_args)
    , app_(app)
    , loop_(loop) {}

void invoke_ctx::release() {
    app_.cancel_invoke(*this);
}

client::result_handler invoke_ctx::take_handler() noexcept {
    const auto stopped = std::move(timer);
    const auto told = std::move(each);
    return std::exchange(handler, nullptr);
}

void invoke_ctx::on_connection_end() {
    app_.end_invoke(*this, error::msg::connection_failed);
}

void invoke_ctx::begin() {
    loop_.invoke_sync(*this);
}

void invoke_ctx::abort() {
    loop_.abort_sync(*this);
}

void invoke_ctx::complete() {
    app_.complete_invoke(*this);
}

void invoke_ctx::complete_unreported() noexcept {
    app_.drop_invoke(*this);
}

void one_reply::tell() {
    app_.tell_reply(*call_, value);
}

} // namespace tarn
