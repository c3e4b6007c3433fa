/// What makes a message of the bus well formed, in one place for libubus and the daemon.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "headers.h"

namespace bus {

/// Largest padded blob of a message, its 8-byte header not counted, in bytes.
inline constexpr std::size_t longest_blob = 1048576;

/// Bytes before a message's attributes: the header and the header word of its blob.
inline constexpr std::size_t message_head_size = sizeof(ubus_msghdr) + sizeof(blob_attr);

/// What the head of a message says about it, in host byte order.
struct message_head {
    std::uint8_t type;
    std::uint16_t seq;
    std::uint32_t peer;
    /// Bytes of the whole message, header included.
    std::size_t size;
};

/// Reads the first message_head_size bytes at `bytes`, which need not be aligned. False if no
/// message can start like that: another version, a blob with an id or of a wrong length. What
/// follows on the stream has no meaning then.
bool read_head(const void* bytes, message_head& head);

/// Writes the 8-byte header.
void write_header(void* bytes, std::uint8_t type, std::uint16_t seq, std::uint32_t peer);

/// The attributes of one message by id (UBUS_ATTR_...); null where there is none. They point into
/// the message.
using attributes = std::array<const blob_attr*, UBUS_ATTR_MAX>;

/// Finds the attributes of a message, `message` being its blob, all of whose blob_raw_len() bytes
/// are there. Of several with one id the last counts; unknown ids and those with the wrong length
/// for their type are passed over, and nothing is looked for behind the first that does not fit.
/// False if there was any such thing, or if the attributes do not fill the blob. What nested
/// attributes hold is not looked at.
bool parse_attributes(const blob_attr* message, attributes& found);

/// Value of an int32 attribute that parse_attributes() has found, or `otherwise` for a null one.
std::uint32_t get_u32(const blob_attr* attribute, std::uint32_t otherwise = 0);

/// Text of a string attribute that parse_attributes() has found; null for a null one.
const char* get_text(const blob_attr* attribute);

} // namespace bus
