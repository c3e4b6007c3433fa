/// Events on the loop thread: the one receiver that all listeners share, and the objects that its
/// events say have appeared or gone.
#include "client/app_side.h"
#include "client/bus_records.h"
#include "client/callback_gate.h"
#include "client/client_impl.h"
#include "client/counters.h"
#include "client/loop_bus.h"
#include "client/loop_side.h"

#include "blob/message_size.h"
#include "client/bus_name.h"
#include "counted.h"
#include "tarn/error.h"

#include <new>
#include <typeindex>
#include <utility>

namespace tarn {

namespace {

bool is_valid_path(const std::string& path) {
    return !path.empty() && !has_nul(path) &&
           message_size::lookup(path.size()) <= message_size::limit;
}

/// The registration of a pattern, as a call of the daemon.
bool fits_registration(const std::string& pattern) {
    const std::size_t fields = message_size::field(6, 4) + // "object", a number
                               message_size::field(7, pattern.size() + 1);
    return message_size::call(8, fields) <= message_size::limit;
}

/// A field of `data` if it is a T, else null.
template <class T>
const T* field(const bus::table& data, const char* name) {
    const auto found = data.find(name);
    return found != data.end() && found->second.type() == typeid(T) ? &found->second.get<T>()
                                                                    : nullptr;
}

} // namespace

bool loop_bus::is_exact(const std::string& path) {
    return is_valid_path(path) && path.back() != '*';
}

// --- the receiver ---

/// Registers a pattern for the receiver, which is registered with the first.
std::error_code loop_bus::listen_to(const std::string& pattern) {
    ubus_context* const bus = loop_.caught_up_bus();
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    if (has_nul(pattern) || !fits_registration(pattern)) {
        return error::msg::invalid_argument;
    }
    if (pattern.empty()) {
        // What daemons of 2025 and later answer. Older ones read what is in front of the text.
        return error::msg::permission_denied;
    }
    bus_records& registered = records();
    if (registered.patterns.count(pattern) != 0) {
        return error::msg::success;
    }
    // Entered first: once the daemon has it nothing may fail any more.
    decltype(registered.patterns)::iterator entry;
    try {
        entry = registered.patterns.insert(pattern).first;
    } catch (const std::bad_alloc&) {
        return error::msg::no_memory;
    }
    registered.receiver.cb = &loop_bus::on_event;
    const int status = ubus_register_event_handler(bus, &registered.receiver, pattern.c_str());
    if (status != 0) {
        registered.patterns.erase(entry);
    }
    return loop_.usable_bus() == bus ? client_impl::to_msg_error(status)
                                     : make_error_code(error::msg::connection_failed);
}

std::error_code loop_bus::follow_objects() {
    // In this order: an object whose appearance is noticed must not go unnoticed in between.
    const std::error_code removed = listen_to(object_removed_);
    return removed ? removed : listen_to(object_added_);
}

/// The bus can only forget all patterns of a receiver together. So the receiver goes with the last
/// operation that needs it, and until then events that none of them matches are dropped here.
void loop_bus::stop_listening() {
    if (is_listening() || loop_.usable_bus() == nullptr || records().patterns.empty()) {
        return;
    }
    ubus_context* const bus = loop_.caught_up_bus();
    if (bus != nullptr && ubus_unregister_event_handler(bus, &records().receiver) == 0) {
        records().patterns.clear();
    }
}

void loop_bus::on_event(ubus_context* /*context*/, ubus_event_handler* /*receiver*/, const char* id,
                        blob_attr* msg) {
    guard_callback([=] {
        loop_bus& self = client_impl::get_instance({}).loop().bus();
        try {
            self.take_event(id, msg);
        } catch (const std::bad_alloc&) {
            self.app_.counts().dropped.add();
        }
    });
}

void loop_bus::take_event(const char* id, blob_attr* msg) {
    assert_loop_side();
    if (id == nullptr || !loop_.connection()) {
        return;
    }
    counters& counts = app_.counts();
    counts.events_received.add();
    counts.bytes_received.add(msg ? blob_len(msg) : 0);
    std::shared_ptr<event> received;
    const auto decode = [&] {
        received = make_counted<event>();
        received->id = id;
        try {
            received->data = blob::utils::to_table(msg);
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception&) {
            received->data.clear(); // one that cannot be decoded counts as an empty one
        }
    };
    if (follows_objects() && (id == object_added_ || id == object_removed_)) {
        bridge_.reserve().cover(decode); // it says what changes, which must not be lost
        follow_presence(*received);
    } else {
        decode();
    }
    for (const auto& operation : listeners_) {
        if (matches(operation->pattern, received->id)) {
            operation->tell(received);
        }
    }
}

// --- the presence of objects ---

void loop_bus::follow_presence(const event& received) {
    const bool added = received.id == object_added_;
    const auto* const id = field<std::uint32_t>(received.data, "id");
    const auto* const path = field<std::string>(received.data, "path");
    if (id == nullptr || path == nullptr) {
        return;
    }
    for (const auto& watch : watches_) {
        if (!added) {
            watch->gone(*id);
        } else if (matches(watch->pattern, *path)) {
            try {
                watch->appeared(*id, *path);
            } catch (const std::bad_alloc&) {
                app_.counts().dropped.add(); // the others are told all the same
            }
        }
    }
    bool wanted = false;
    for (const auto& operation : subscriptions_) {
        if (added && operation->path == *path && operation->subscribed_to != *id) {
            operation->wanted = *id;
            wanted = true;
        } else if (!added && operation->wanted == *id) {
            operation->wanted = 0;
        }
    }
    if (wanted) {
        request_follow_up();
    }
    for (auto next = waits_.begin(); next != waits_.end();) {
        wait_operation& operation = **next++; // one that is done leaves the list
        const auto entry = operation.present.find(*path);
        if (entry == operation.present.end()) {
            continue;
        }
        if (added) {
            entry->second = *id;
            check(operation);
        } else if (entry->second == *id) {
            entry->second = 0;
        }
    }
}

/// Calls `found` for every object of a pattern. None is no error.
std::error_code loop_bus::find(const std::string& pattern, const found_handler& found) {
    if (!is_valid_path(pattern)) {
        return error::msg::invalid_argument;
    }
    ubus_context* const bus = loop_.caught_up_bus();
    if (bus == nullptr) {
        return error::msg::connection_failed;
    }
    struct search {
        const found_handler& found;
        bool out_of_memory;
    };
    search inside{found, false};
    const int status = ubus_lookup(
        bus, pattern.c_str(),
        [](ubus_context* /*context*/, ubus_object_data* object, void* data) {
            auto& here = *static_cast<search*>(data);
            try {
                here.found(*object);
            } catch (const std::bad_alloc&) {
                here.out_of_memory = true;
            }
        },
        &inside);
    if (loop_.usable_bus() != bus) {
        return error::msg::connection_failed;
    }
    if (inside.out_of_memory) {
        return error::msg::no_memory;
    }
    const std::error_code code = client_impl::to_msg_error(status);
    return code == error::msg::not_found ? make_error_code(error::msg::success) : code;
}

std::error_code loop_bus::find_one(const std::string& path, std::uint32_t& id) {
    return find(path, [&id](const ubus_object_data& object) { id = object.id; });
}

namespace {

std::vector<bus::method_info> methods_of(blob_attr* signature) {
    std::vector<bus::method_info> methods;
    if (signature == nullptr) {
        return methods;
    }
    // Walked here, since a table would lose the order.
    std::size_t rest = blob_len(signature);
    auto* method = static_cast<blob_attr*>(blob_data(signature));
    while (rest >= sizeof(blob_attr) && blob_pad_len(method) <= rest &&
           blob_pad_len(method) >= sizeof(blob_attr) && blobmsg_check_attr(method, true)) {
        auto& described = methods.emplace_back();
        described.name = blobmsg_name(method);
        if (blobmsg_type(method) == BLOBMSG_TYPE_TABLE) {
            std::size_t left = blobmsg_data_len(method);
            auto* expected = static_cast<blob_attr*>(blobmsg_data(method));
            while (left >= sizeof(blob_attr) && blob_pad_len(expected) <= left &&
                   blob_pad_len(expected) >= sizeof(blob_attr) &&
                   blobmsg_check_attr(expected, true)) {
                auto& info = described.fields.emplace_back();
                info.name = blobmsg_name(expected);
                if (blobmsg_type(expected) == BLOBMSG_TYPE_INT32) {
                    info.type = static_cast<bus::field_type>(blobmsg_get_u32(expected));
                }
                left -= blob_pad_len(expected);
                expected = blob_next(expected);
            }
        }
        rest -= blob_pad_len(method);
        method = blob_next(method);
    }
    return methods;
}

} // namespace

void loop_bus::look_up(look_up_operation& operation) {
    assert_loop_side();
    try {
        operation.outcome = find(operation.pattern, [&](const ubus_object_data& object) {
            bus::object_info& found = operation.found.emplace_back();
            found.path = object.path;
            found.id = object.id;
            found.type_id = object.type_id;
            found.methods = methods_of(object.signature);
        });
    } catch (const std::bad_alloc&) {
        operation.outcome = error::msg::no_memory;
    }
    // What arrived before the answer is reported before it.
    loop_.take_postponed();
    bridge_.post_from_uloop(operation.done_task);
}

} // namespace tarn
