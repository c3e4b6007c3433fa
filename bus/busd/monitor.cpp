/// The monitor: clients that are sent a copy of every message.
#include "broker.h"

#include <algorithm>
#include <string_view>

namespace busd {

std::uint32_t broker::call_monitor(client& sender, const attributes& given) {
    if (!sender.is_root_) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    const std::string_view method = bus::get_text(given[UBUS_ATTR_METHOD]);
    if (method != "add" && method != "remove") {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    end_monitor(sender);
    if (method == "add") {
        monitors_.push_back({&sender, 0});
    }
    return UBUS_STATUS_OK;
}

void broker::end_monitor(const client& leaving) {
    monitors_.erase(std::remove_if(monitors_.begin(), monitors_.end(),
                                   [&](const monitor& each) { return each.reader == &leaving; }),
                    monitors_.end());
}

void broker::show(const client& whose, direction way, const std::uint8_t* bytes, std::size_t size) {
    head shown;
    if (monitors_.empty() || !bus::read_head(bytes, shown)) {
        return;
    }
    for (monitor& each : monitors_) {
        client& reader = *each.reader;
        message copy(reader.out_, UBUS_MSG_MONITOR, ++each.last_seq, 0);
        copy.put_u32(UBUS_MONITOR_CLIENT, whose.id_)
            .put_u32(UBUS_MONITOR_PEER, shown.peer)
            .put_u32(UBUS_MONITOR_SEQ, shown.seq)
            .put_u32(UBUS_MONITOR_TYPE, shown.type)
            .put_u8(UBUS_MONITOR_SEND, way == direction::to_client ? 1 : 0)
            .put_payload(UBUS_MONITOR_DATA, bytes + bus::message_head_size,
                         size - bus::message_head_size);
        // It takes no room from the message itself.
        const bool own = way == direction::to_client && &reader == &whose;
        if (!copy.too_long() && make_room(reader, copy, own ? size : 0)) {
            copy.commit();
            reader.on_output();
        }
    }
}

} // namespace busd
