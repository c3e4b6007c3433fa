/// The client's operations and libubus's callbacks, each passed to the side that it belongs to.
#include "client/client_impl.h"

#include "client/callback_gate.h"
#include "counted.h"

namespace tarn {

utils::link client_impl::connect(const completion_handler& handler) {
    return app_side_.connect(handler);
}

utils::link client_impl::auto_connect(const backoff_function& backoff) {
    return app_side_.auto_connect(backoff);
}

utils::link client_impl::disconnect(const completion_handler& handler) {
    return app_side_.disconnect(handler);
}

utils::link client_impl::notify_on_state_change(const state_handler& handler) {
    return app_side_.notify_on_state_change(handler);
}

client::state client_impl::get_state() const {
    return app_side_.get_state();
}

bool client_impl::is_active() const {
    return get_state() == state::connected;
}

utils::link client_impl::invoke(const std::string& path, const std::string& method,
                                const std::multimap<std::string, blob::attr>& args,
                                const result_handler& handler,
                                const std::chrono::seconds& timeout) {
    return app_side_.invoke(path, method, args, nullptr, handler, timeout);
}

utils::link client_impl::invoke_each(const std::string& path, const std::string& method,
                                     const std::multimap<std::string, blob::attr>& args,
                                     const reply_handler& each, const completion_handler& handler,
                                     const std::chrono::seconds& timeout) {
    result_handler done;
    if (handler) {
        done = [handler](const std::list<blob::attr>& /*replies*/, const std::error_code& code) {
            handler(code);
        };
    }
    return app_side_.invoke(path, method, args, make_counted<reply_handler>(each), done, timeout);
}

utils::link client_impl::add_object(const std::string& name, const method_map& methods,
                                    const completion_handler& handler) {
    return app_side_.add_object(name, methods, handler);
}

utils::link client_impl::del_object(const std::string& name, bool stop_serving,
                                    const completion_handler& handler) {
    return app_side_.del_object(name, stop_serving, handler);
}

void client_impl::cancel() {
    app_side_.cancel();
}

void client_impl::connection_lost_handler(ubus_context* context) {
    guard_callback([context] { get_instance({}).loop_side_.on_connection_lost(context); });
}

void client_impl::invoke_req_data_handler(ubus_request* request, int /*type*/, blob_attr* msg) {
    guard_callback([request, msg] { get_instance({}).loop_side_.on_data(*request, msg); });
}

void client_impl::invoke_req_done_handler(ubus_request* request, int status) {
    guard_callback([request, status] { get_instance({}).loop_side_.on_done(*request, status); });
}

int client_impl::method_callable(ubus_context* /*context*/, ubus_object* object,
                                 ubus_request_data* request, const char* method, blob_attr* msg) {
    constexpr int answer_unknown_error = 9; // UBUS_STATUS_UNKNOWN_ERROR
    return guard_callback(
        [=] { return get_instance({}).loop_side_.on_call(object, request, method, msg); },
        answer_unknown_error);
}

} // namespace tarn
