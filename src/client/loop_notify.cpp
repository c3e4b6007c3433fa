/// Notifications of the subscribers of our own objects, on the loop thread.
#include "client/app_side.h"
#include "client/callback_gate.h"
#include "client/client_impl.h"
#include "client/counters.h"
#include "client/loop_bus.h"
#include "client/loop_side.h"

#include "blob/message_size.h"
#include "tarn/error.h"

#include <array>
#include <list>
#include <new>
#include <stdexcept>
#include <utility>

namespace tarn {

namespace {

/// All notifications share the numbers of one object: their answers come from the subscribers,
/// which several of our objects may have in common.
constexpr std::uint32_t all_notifications = 0;

} // namespace

std::shared_ptr<ubus_object_ctx> loop_bus::published(const std::string& name) const {
    if (loop_.connection()) {
        for (const auto& entry : loop_.connection()->objects) {
            if (entry.second->name == name && entry.second->object.id != 0) {
                return entry.second;
            }
        }
    }
    return nullptr;
}

void loop_bus::notify(notify_operation& operation) {
    assert_loop_side();
    std::error_code status;
    try {
        status = start_notify(operation);
    } catch (const std::bad_alloc&) {
        status = error::msg::no_memory;
    }
    operation.data.clear();
    if (status || !operation.awaits_answers) {
        complete(operation, status);
    }
}

void loop_bus::complete(notify_operation& operation, const std::error_code& outcome) {
    operation.outcome = outcome;
    bridge_.post_from_uloop(operation.done_task);
}

std::error_code loop_bus::start_notify(notify_operation& operation) {
    ubus_context* const bus = loop_.usable_bus();
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    const auto object = published(operation.name);
    if (!object) {
        return error::msg::not_found;
    }
    blob::buf buffer;
    try {
        buffer.assign(operation.data);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return buffer.overflowed() ? error::msg::invalid_argument : error::msg::parse_error;
    }
    blob_attr* const data = buffer.native()->head;
    const std::string& method = operation.method;
    // The daemon adds the sender's user and group, as to a call.
    if (message_size::call(method.size(), blob_len(data)) + message_size::number >
        message_size::call_limit) {
        return error::msg::invalid_argument;
    }
    loop_.before_write();
    const auto count_sent = [&] {
        app_.counts().notifications_sent.add();
        app_.counts().bytes_sent.add(blob_len(data));
    };
    if (!operation.awaits_answers) {
        constexpr int no_answers = -1;
        const int sent = ubus_notify(bus, &object->object, method.c_str(), data, no_answers);
        if (loop_.usable_bus() != bus) {
            return error::msg::connection_failed;
        }
        if (sent == 0) {
            count_sent();
        }
        return client_impl::to_msg_error(sent);
    }
    request_table& requests = loop_.connection()->requests;
    if (!requests.insert(*bus, all_notifications, self_of<bus_request>(operation))) {
        return error::msg::no_memory;
    }
    operation.carried_by = loop_.connection()->id;
    ubus_notify_request& request = operation.request.native;
    const int started = ubus_notify_async(bus, &object->object, method.c_str(), data, &request);
    if (started != 0) {
        requests.erase(operation);
        return loop_.usable_bus() == bus ? client_impl::to_msg_error(started)
                                         : make_error_code(error::msg::connection_failed);
    }
    count_sent();
    // Only now: starting the request has initialised the record.
    request.req.priv = this;
    request.req.raw_data_cb = &loop_bus::on_notify_data;
    request.status_cb = &loop_bus::on_notify_status;
    request.complete_cb = &loop_bus::on_notify_done;
    ubus_complete_request_async(bus, &request.req);
    return {};
}

void loop_bus::stop(notify_operation& operation) {
    assert_loop_side();
    if (!loop_.carries(operation.carried_by) || !loop_.connection()->requests.erase(operation)) {
        return;
    }
    ubus_request& request = operation.request.native.req;
    // Also when nothing can be sent any more: until the loss is handled libubus has the record in
    // its list.
    ubus_context* const bus = loop_.bus_context();
    if (request.priv != nullptr && bus != nullptr) {
        ubus_abort_request(bus, &request);
        request.priv = nullptr;
    }
}

void loop_bus::on_notify_data(ubus_request* request, int /*type*/, blob_attr* msg) {
    guard_callback([=] {
        auto& operation = notify_operation::of(*reinterpret_cast<ubus_notify_request*>(request));
        // The answers of all subscribers come alike; the message says whose one is.
        std::array<blob_attr*, UBUS_ATTR_MAX> fields{};
        std::array<blob_attr_info, UBUS_ATTR_MAX> expected{};
        expected[UBUS_ATTR_OBJID].type = BLOB_ATTR_INT32;
        blob_parse(msg, fields.data(), expected.data(), UBUS_ATTR_MAX);
        if (fields[UBUS_ATTR_OBJID] == nullptr || fields[UBUS_ATTR_DATA] == nullptr) {
            return;
        }
        loop_bus& self = client_impl::get_instance({}).loop().bus();
        self.app_.counts().bytes_received.add(blob_len(fields[UBUS_ATTR_DATA]));
        bus::table table;
        try {
            table = blob::utils::to_table(fields[UBUS_ATTR_DATA]);
        } catch (const std::bad_alloc&) {
            operation.result = error::msg::no_memory;
            return;
        } catch (const std::exception&) {
            table.clear(); // one that cannot be decoded counts as an empty one
        }
        std::list<blob::attr> reply;
        self.bridge_.reserve().cover([&] {
            if (reply.empty()) {
                std::list<blob::attr> made(1);
                made.front().set<bus::table>(std::move(table)); // taken only when it succeeds
                reply.swap(made);
            }
            operation.add_reply(blob_get_u32(fields[UBUS_ATTR_OBJID]), reply);
        });
    });
}

void loop_bus::on_notify_status(ubus_notify_request* request, int index, int status) {
    guard_callback([=] {
        if (index >= 0 && index <= UBUS_MAX_NOTIFY_PEERS) {
            auto& operation = notify_operation::of(*request);
            client_impl::get_instance({}).loop().bus().bridge_.reserve().cover([&] {
                operation.set_status(request->id[index], client_impl::to_msg_error(status));
            });
        }
    });
}

void loop_bus::on_notify_done(ubus_notify_request* request, int /*index*/, int /*status*/) {
    guard_callback([=] {
        loop_bus& self = client_impl::get_instance({}).loop().bus();
        auto& operation = notify_operation::of(*request);
        if (request->req.ctx->sock.eof) {
            // Not an answer: newer releases of libubus end the requests of a closing connection
            // this way. The disconnection that follows reports them.
            request->req.priv = nullptr;
            return;
        }
        const auto kept = self_of(operation);
        if (self.loop_.connection() && self.loop_.connection()->requests.erase(operation)) {
            const bool waiting = request->req.ctx->stack_depth > 0;
            self.complete(operation, operation.result);
            if (waiting) {
                self.bridge_.flush();
            }
        }
    });
}

// --- subscribers ---

void loop_bus::on_subscribers(const std::string& name, bool has_subscribers) {
    for (const auto& watch : subscribers_watches_) {
        if (watch->name == name) {
            watch->tell(has_subscribers);
        }
    }
}

void loop_bus::subscribers_changed(ubus_context* /*context*/, ubus_object* object) {
    guard_callback([=] {
        loop_side& loop = client_impl::get_instance({}).loop();
        if (!loop.connection()) {
            return;
        }
        const auto& objects = loop.connection()->objects;
        const auto found = objects.find(object);
        if (found != objects.end()) {
            loop.bus().on_subscribers(found->second->name, object->has_subscribers);
        }
    });
}

} // namespace tarn
