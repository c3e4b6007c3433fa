/// How long messages become: the arithmetic of blobs and of the messages that libubus makes of
/// ours, and the limits that both keep. All sizes are in bytes.
#pragma once

#include <cstddef>
#include <limits>
#include <string>

namespace tarn::message_size {

/// The longest message on the bus, without the header in front of its blob. The daemon drops the
/// connection of a client that sends a longer one; no public header of libubus names the number.
constexpr std::size_t limit = 1048576;

/// The length of a blob is a 24-bit number, padding and everything nested included. libubox takes
/// one byte more, and a message of that length then says that it is empty.
constexpr std::size_t blob_limit = 0xffffff;

/// The length of a field's name is a 16-bit number.
constexpr std::size_t name_limit = std::numeric_limits<unsigned short>::max();

/// Attributes start at multiples of four.
constexpr std::size_t padded(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

/// An attribute of `data` bytes, behind its header and with its padding.
constexpr std::size_t attribute(std::size_t data) {
    return 4 + padded(data);
}

/// A text attribute, with the NUL that ends it.
constexpr std::size_t text(std::size_t length) {
    return attribute(length + 1);
}

/// A blobmsg field: a header with the length of the name, the name and its NUL, and the data.
constexpr std::size_t field(std::size_t name, std::size_t data) {
    return attribute(padded(2 + name + 1) + data);
}

/// The head of a message, and a number in it.
constexpr std::size_t head = 4;
constexpr std::size_t number = attribute(4);

/// The look-up of an object by a path.
constexpr std::size_t lookup(std::size_t path) {
    return head + text(path);
}

/// The call of a method with `data` bytes of encoded arguments.
constexpr std::size_t call(std::size_t method, std::size_t data) {
    return head + number + text(method) + attribute(data);
}

/// The daemon adds the names of the caller's user and group to a call that it passes on. A call
/// that exceeds the limit by that cannot be received, and no error is reported. A name may have
/// 255 bytes.
constexpr std::size_t call_limit = limit - 2 * text(255);

/// A reply with `data` bytes.
constexpr std::size_t reply(std::size_t data) {
    return head + number + attribute(data);
}

/// The publication of an object. `methods` maps the name of each method to its fields.
template <class Methods>
std::size_t publication(const std::string& name, const Methods& methods) {
    std::size_t signature = 0;
    for (const auto& [method, fields] : methods) {
        std::size_t types = 0;
        for (const auto& expected : fields) {
            types += field(expected.first.size(), 4);
        }
        signature += field(method.size(), types);
    }
    return head + text(name.size()) + attribute(signature);
}

} // namespace tarn::message_size
