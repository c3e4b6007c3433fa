/// What makes a message of the bus well formed.
#include "message.h"

#include <cstring>
#include <endian.h>

namespace bus {
namespace {

std::uint32_t load_u32(const void* bytes) {
    std::uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return be32toh(value);
}

constexpr std::uint32_t length_mask = 0xffffff;
constexpr unsigned id_shift = 24;
constexpr std::uint32_t id_mask = 0x7f;

bool length_fits(std::uint32_t id, const char* data, std::size_t length) {
    switch (id) {
    case UBUS_ATTR_STATUS:
    case UBUS_ATTR_OBJID:
    case UBUS_ATTR_OBJTYPE:
    case UBUS_ATTR_TARGET:
        return length == sizeof(std::uint32_t);
    case UBUS_ATTR_ACTIVE:
    case UBUS_ATTR_NO_REPLY:
        return length == sizeof(std::uint8_t);
    case UBUS_ATTR_OBJPATH:
    case UBUS_ATTR_METHOD:
    case UBUS_ATTR_USER:
    case UBUS_ATTR_GROUP:
        return length > 0 && data[length - 1] == '\0';
    default:
        return true;
    }
}

} // namespace

bool read_head(const void* bytes, message_head& head) {
    ubus_msghdr header;
    std::memcpy(&header, bytes, sizeof header);
    const std::uint32_t blob = load_u32(static_cast<const char*>(bytes) + sizeof header);
    const std::uint32_t length = blob & length_mask;
    const std::uint32_t padded = (length + 3) & ~std::uint32_t{3};
    if (header.version != 0 || (blob & ~length_mask) != 0 || length < sizeof(blob_attr) ||
        padded > longest_blob) {
        return false;
    }
    head.type = header.type;
    head.seq = be16toh(header.seq);
    head.peer = be32toh(header.peer);
    head.size = sizeof header + length;
    return true;
}

void write_header(void* bytes, std::uint8_t type, std::uint16_t seq, std::uint32_t peer) {
    const ubus_msghdr header{0, type, htobe16(seq), htobe32(peer)};
    std::memcpy(bytes, &header, sizeof header);
}

bool parse_attributes(const blob_attr* message, attributes& found) {
    found.fill(nullptr);
    const char* at = message->data;
    std::size_t left = (load_u32(message) & length_mask) - sizeof(blob_attr);
    bool well_formed = true;
    while (left >= sizeof(blob_attr)) {
        const std::uint32_t word = load_u32(at);
        const std::size_t length = word & length_mask;
        const std::uint32_t id = (word >> id_shift) & id_mask;
        if (length < sizeof(blob_attr) || length > left) {
            return false;
        }
        if (!length_fits(id, at + sizeof(blob_attr), length - sizeof(blob_attr))) {
            well_formed = false;
        } else if (id < found.size()) {
            found[id] = reinterpret_cast<const blob_attr*>(at);
        }
        // The padding of the last attribute may be missing.
        const std::size_t padded = (length + 3) & ~std::size_t{3};
        const std::size_t step = padded < left ? padded : left;
        at += step;
        left -= step;
    }
    return well_formed && left == 0;
}

std::uint32_t get_u32(const blob_attr* attribute, std::uint32_t otherwise) {
    return attribute == nullptr ? otherwise : load_u32(attribute->data);
}

const char* get_text(const blob_attr* attribute) {
    return attribute == nullptr ? nullptr : attribute->data;
}

} // namespace bus
