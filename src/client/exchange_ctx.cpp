/// Answering an incoming call: replies, and the one completion.
#include "client/exchange_ctx.h"

#include "client/app_side.h"
#include "tarn/error.h"

#include <utility>

namespace tarn {

exchange_ctx::exchange_ctx(app_side& app, const std::shared_ptr<served_call>& call)
    : client::exchange_ctx(std::move(call->args))
    , app_(app)
    , life_(app.bridge().life())
    , call_(call) {}

exchange_ctx::exchange_ctx(app_side& app, std::multimap<std::string, blob::attr>&& arguments)
    : client::exchange_ctx(std::move(arguments))
    , app_(app)
    , life_(app.bridge().life()) {}

exchange_ctx::~exchange_ctx() {
    exchange_ctx::respond(error::msg::success);
}

const std::shared_ptr<served_call>& exchange_ctx::open_call() const {
    static const std::shared_ptr<served_call> none;
    if (!call_ || call_->connection != app_.open_connection()) {
        return none;
    }
    // A notification may have been answered for the application, at the end of its subscription.
    return !call_->records && call_->settled ? none : call_;
}

bool exchange_ctx::expired() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return !open_call();
}

utils::link exchange_ctx::send(std::multimap<std::string, blob::attr> data,
                               const client::completion_handler& handler) {
    if (life_ != app_.bridge().life()) {
        return {};
    }
    std::shared_ptr<served_call> call;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        call = open_call();
    }
    return call ? app_.send(call, std::move(data), handler)
                : app_.report_later(handler, make_error_code(error::msg::connection_failed));
}

void exchange_ctx::respond(const std::error_code& status) {
    std::shared_ptr<served_call> call;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!open_call()) {
            return;
        }
        call.swap(call_);
    }
    app_.complete_call(*call, status);
}

} // namespace tarn
