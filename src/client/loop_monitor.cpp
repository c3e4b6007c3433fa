/// The monitor on the loop thread: every message that passes the daemon, with its attributes.
#include "client/app_side.h"
#include "client/bus_records.h"
#include "client/callback_gate.h"
#include "client/client_impl.h"
#include "client/loop_bus.h"
#include "client/loop_side.h"

#include "counted.h"
#include "tarn/error.h"

#include <array>
#include <new>

namespace tarn {

namespace {

/// An attribute of a message: its name, and its type on the bus.
struct attribute {
    const char* name;
    unsigned int type;
};

/// In the order of their numbers.
constexpr std::array<attribute, UBUS_ATTR_MAX> attributes{{
    {nullptr, BLOB_ATTR_UNSPEC},
    {"status", BLOB_ATTR_INT32},
    {"objpath", BLOB_ATTR_STRING},
    {"objid", BLOB_ATTR_INT32},
    {"method", BLOB_ATTR_STRING},
    {"objtype", BLOB_ATTR_INT32},
    {"signature", BLOB_ATTR_NESTED},
    {"data", BLOB_ATTR_NESTED},
    {"target", BLOB_ATTR_INT32},
    {"active", BLOB_ATTR_INT8},
    {"no_reply", BLOB_ATTR_INT8},
    {"subscribers", BLOB_ATTR_NESTED},
    {"user", BLOB_ATTR_STRING},
    {"group", BLOB_ATTR_STRING},
}};

std::list<blob::attr> numbers_in(blob_attr* nested) {
    std::list<blob::attr> numbers;
    std::size_t rest = blob_len(nested);
    auto* entry = static_cast<blob_attr*>(blob_data(nested));
    while (rest >= sizeof(blob_attr) && blob_pad_len(entry) >= sizeof(blob_attr) &&
           blob_pad_len(entry) <= rest) {
        if (blob_len(entry) == sizeof(std::uint32_t)) {
            numbers.emplace_back(blob_get_u32(entry));
        }
        rest -= blob_pad_len(entry);
        entry = blob_next(entry);
    }
    return numbers;
}

blob::attr value_of(blob_attr* field, std::size_t number) {
    switch (attributes[number].type) {
    case BLOB_ATTR_INT32:
        return blob_get_u32(field);
    case BLOB_ATTR_INT8:
        return blob_get_u8(field) != 0;
    case BLOB_ATTR_STRING:
        return std::string(blob_get_string(field));
    default:
        break;
    }
    if (number == UBUS_ATTR_SUBSCRIBERS) {
        return numbers_in(field);
    }
    return blob::utils::to_table(field);
}

} // namespace

void loop_bus::restore(message_watch& operation) {
    ubus_context* const bus = loop_.caught_up_bus();
    if (bus == nullptr) {
        return;
    }
    int status = 0;
    if (!records().monitors) {
        bus->monitor_cb = &loop_bus::on_message;
        status = ubus_monitor_start(bus);
        if (loop_.usable_bus() != bus) {
            return;
        }
        records().monitors = status == 0;
    }
    operation.tell_registered(client_impl::to_msg_error(status));
}

void loop_bus::remove(const message_watch& removed) {
    assert_loop_side();
    monitors_.remove_if([&](const auto& entry) { return entry.get() == &removed; });
    ubus_context* const bus = monitors_.empty() ? loop_.caught_up_bus() : nullptr;
    if (bus != nullptr && records().monitors) {
        records().monitors = false;
        ubus_monitor_stop(bus);
        bus->monitor_cb = nullptr;
    }
}

void loop_bus::on_message(ubus_context* /*context*/, std::uint32_t /*seq*/, blob_attr* data) {
    guard_callback([=] {
        loop_bus& self = client_impl::get_instance({}).loop().bus();
        try {
            self.take_message(data);
        } catch (const std::bad_alloc&) {
            self.app_.counts().dropped.add();
        }
    });
}

void loop_bus::take_message(blob_attr* data) {
    assert_loop_side();
    std::array<blob_attr*, UBUS_MONITOR_MAX> fields{};
    std::array<blob_attr_info, UBUS_MONITOR_MAX> expected{};
    for (const auto number :
         {UBUS_MONITOR_CLIENT, UBUS_MONITOR_PEER, UBUS_MONITOR_SEQ, UBUS_MONITOR_TYPE}) {
        expected[number].type = BLOB_ATTR_INT32;
    }
    expected[UBUS_MONITOR_SEND].type = BLOB_ATTR_INT8;
    blob_parse(data, fields.data(), expected.data(), UBUS_MONITOR_MAX);
    for (blob_attr* const field : fields) {
        if (field == nullptr) {
            return;
        }
    }
    const auto passed = make_counted<bus::message>();
    passed->client = blob_get_u32(fields[UBUS_MONITOR_CLIENT]);
    passed->peer = blob_get_u32(fields[UBUS_MONITOR_PEER]);
    passed->seq = static_cast<std::uint16_t>(blob_get_u32(fields[UBUS_MONITOR_SEQ]));
    passed->type = static_cast<int>(blob_get_u32(fields[UBUS_MONITOR_TYPE]));
    passed->sent = blob_get_u8(fields[UBUS_MONITOR_SEND]) != 0;

    std::array<blob_attr*, UBUS_ATTR_MAX> parts{};
    std::array<blob_attr_info, UBUS_ATTR_MAX> types{};
    for (std::size_t number = 0; number < attributes.size(); ++number) {
        types[number].type = attributes[number].type;
    }
    blob_parse(fields[UBUS_MONITOR_DATA], parts.data(), types.data(), UBUS_ATTR_MAX);
    for (std::size_t number = 1; number < attributes.size(); ++number) {
        if (parts[number] == nullptr) {
            continue;
        }
        try {
            passed->attributes.emplace(attributes[number].name, value_of(parts[number], number));
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception&) {
            // What cannot be decoded is left out.
        }
    }
    for (const auto& operation : monitors_) {
        operation->tell(passed);
    }
}

} // namespace tarn
