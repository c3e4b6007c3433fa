/// Calls of other processes' objects, from the application's request to its handler.
#include "client/client_impl.h"

#include "blob/message_size.h"
#include "client/bus_name.h"
#include "client/callback_gate.h"
#include "tarn/error.h"
#include "tarn/uloop.h"

#include <new>
#include <utility>

namespace tarn {

utils::link client_impl::invoke(const std::string& path, const std::string& method,
                                const std::multimap<std::string, blob::attr>& args,
                                const result_handler& handler,
                                const std::chrono::seconds& timeout) {
    return start_invoke(path, method, args, nullptr, handler, timeout);
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
    return start_invoke(path, method, args, std::make_shared<const reply_handler>(each), done,
                        timeout);
}

utils::link client_impl::start_invoke(const std::string& path, const std::string& method,
                                      const std::multimap<std::string, blob::attr>& args,
                                      const std::shared_ptr<const reply_handler>& each,
                                      const result_handler& handler,
                                      const std::chrono::seconds& timeout) {
    if (get_tracker().expired()) {
        return report_later(handler, std::list<blob::attr>(),
                            make_error_code(error::generic::aborted));
    }
    if (has_nul(path) || has_nul(method)) {
        return report_later(handler, std::list<blob::attr>(),
                            make_error_code(error::msg::invalid_argument));
    }

    const auto request = std::make_shared<ubus_request>();
    auto ctx = std::make_shared<invoke_ctx>();
    std::weak_ptr<invoke_ctx> watched = ctx;
    ctx->request = request;
    ctx->handler = handler;
    ctx->each = each;
    invokes_.insert(ctx);
    try {
        if (timeout != std::chrono::seconds::zero()) {
            const auto timer = get_eloop()->create_timer();
            timer->set_timeout(timeout);
            timer->set_handler([this, request, watched] { expire_invoke(request, watched); });
            invokes_.set_timer(request.get(), watched, timer);
        }
        utils::link pending =
            misc::create_link(ctx, [this, request, watched] { cancel_invoke(request, watched); });
        // From here on the table is the only owner, so that the link sees the end at once.
        ctx.reset();
        post_to_uloop([this, path, method, args, request, watched]() mutable {
            invoke_sync(path, method, args, request, watched);
        });
        return pending;
    } catch (...) {
        invokes_.take(request.get());
        throw;
    }
}

void client_impl::invoke_sync(const std::string& path, const std::string& method,
                              const std::multimap<std::string, blob::attr>& args,
                              const std::shared_ptr<ubus_request>& request,
                              std::weak_ptr<invoke_ctx>& ctx) {
    std::error_code status;
    try {
        status = start_request(path, method, args, request);
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    }
    if (!status) {
        if (ctx.expired()) {
            // Over already, and whoever ended it may have asked for the abort before this came.
            abort_sync(request);
        }
        return;
    }
    request->priv = nullptr;
    post_from_uloop([this, status, request, ctx] {
        const auto ended = invokes_.take(request.get(), ctx);
        if (ended && ended->handler) {
            ended->handler({}, status);
        }
    });
}

std::error_code client_impl::start_request(const std::string& path, const std::string& method,
                                           const std::multimap<std::string, blob::attr>& args,
                                           const std::shared_ptr<ubus_request>& request) {
    ubus_context* const bus = usable_bus();
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    // libubus would send the look-up of such a path, and the daemon drop the connection.
    if (message_size::lookup(path.size()) > message_size::limit ||
        message_size::call(method.size(), 0) > message_size::call_limit) {
        return error::msg::invalid_argument;
    }
    std::uint32_t id = 0;
    const std::error_code lookup = to_msg_error(ubus_lookup_id(bus, path.c_str(), &id));
    if (usable_bus() != bus) {
        return error::msg::connection_failed; // lost while it was looking up
    }
    if (lookup) {
        return lookup;
    }
    if (id == 0) {
        return error::msg::not_found; // an object that this process may not see
    }
    blob::buf buffer;
    try {
        buffer.assign(args);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        if (!buffer.overflowed()) {
            return error::msg::parse_error;
        }
        return error::msg::invalid_argument; // as for every call beyond the limit of the bus
    }
    if (message_size::call(method.size(), blob_len(buffer.native()->head)) >
        message_size::call_limit) {
        return error::msg::invalid_argument;
    }
    // The entry comes first: once libubus works on the request nothing may fail any more.
    if (!requests_.insert(*bus, id, request)) {
        return error::msg::no_memory;
    }
    const std::error_code started = to_msg_error(
        ubus_invoke_async_fd(bus, id, method.c_str(), buffer.native()->head, request.get(), -1));
    if (started) {
        requests_.erase(request.get());
        return usable_bus() == bus ? started : error::msg::connection_failed;
    }
    // Only now: starting the request has initialised the record.
    request->priv = this;
    request->data_cb = &client_impl::invoke_req_data_handler;
    request->complete_cb = &client_impl::invoke_req_done_handler;
    ubus_complete_request_async(bus, request.get());
    return {};
}

void client_impl::invoke_req_data_handler(ubus_request* request, int /*type*/, blob_attr* msg) {
    guard_callback([request, msg] {
        client_impl& self = get_instance({});
        const auto record = self.requests_.find(request);
        if (!record) {
            return;
        }
        // A reply that cannot be decoded counts as an empty one.
        std::error_code status;
        std::multimap<std::string, blob::attr> table;
        try {
            table = blob::utils::to_table(msg);
        } catch (const std::bad_alloc&) {
            status = error::msg::no_memory;
        } catch (const std::exception&) {
            status = error::msg::parse_error;
        }
        std::list<blob::attr> reply;
        self.with_reserve([&] {
            if (reply.empty()) {
                reply.emplace_back();
            }
            // Takes the table only when there is memory to hold it.
            reply.front().set<std::multimap<std::string, blob::attr>>(std::move(table));
        });
        self.post_from_uloop([&self, reply = std::move(reply), status, record]() mutable {
            self.on_reply(record, std::move(reply), status);
        });
    });
}

void client_impl::on_reply(const std::shared_ptr<ubus_request>& request,
                           std::list<blob::attr>&& reply, const std::error_code& status) {
    const auto each = invokes_.add_reply(request.get(), reply, status);
    if (each && *each) {
        (*each)(reply.front());
    }
}

void client_impl::invoke_req_done_handler(ubus_request* request, int status) {
    guard_callback([request, status] {
        client_impl& self = get_instance({});
        const auto record = self.requests_.find(request);
        if (!record) {
            return;
        }
        const std::error_code completion = to_msg_error(status);
        if (completion == error::msg::timeout && request->ctx->sock.eof) {
            // Nobody's answer: newer releases of libubus end the requests of a dying connection
            // this way, older ones leave them. Either way the disconnection that follows reports
            // them. libubus is done with the record, so it must not be aborted any more.
            request->priv = nullptr;
            return;
        }
        self.requests_.erase(request);
        self.post_from_uloop([&self, completion, record] {
            const auto ended = self.invokes_.take(record.get());
            if (ended && ended->handler) {
                const bool bad_reply = !completion && ended->status;
                ended->handler(ended->replies, bad_reply ? ended->status : completion);
            }
        });
    });
}

void client_impl::expire_invoke(const std::shared_ptr<ubus_request>& request,
                                const std::weak_ptr<invoke_ctx>& ctx) {
    // The timer's handler, which holds the arguments, dies with the contents taken out here.
    const auto record = request;
    const auto ended = invokes_.take(record.get(), ctx);
    if (!ended) {
        return;
    }
    abort_later(record);
    if (ended->handler) {
        ended->handler({}, error::msg::timeout);
    }
}

void client_impl::cancel_invoke(const std::shared_ptr<ubus_request>& request,
                                const std::weak_ptr<invoke_ctx>& ctx) {
    if (invokes_.take(request.get(), ctx)) {
        abort_later(request);
    }
}

void client_impl::abort_later(const std::shared_ptr<ubus_request>& request) noexcept {
    try {
        post_to_uloop([this, request] { abort_sync(request); });
    } catch (...) {
        // No memory. The record stays with libubus until it is answered or the connection ends;
        // nobody hears of either.
    }
}

void client_impl::abort_sync(const std::shared_ptr<ubus_request>& request) {
    // A record that is not listed any more has completed, or its connection has ended: libubus must
    // not see it again, since its list links may point into freed memory.
    if (!requests_.erase(request.get()) || request->priv == nullptr || !bus_) {
        return;
    }
    ubus_abort_request(bus_.get(), request.get());
    request->priv = nullptr;
}

} // namespace tarn
