/// Messages as bytes, for the tests of the encoder and the readers.
#pragma once

#include "bus.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace tarn::test {

inline std::string from_hex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

inline std::string to_hex(const void* data, std::size_t size) {
    std::string hex;
    for (std::size_t i = 0; i < size; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<const unsigned char*>(data)[i]);
        hex += digits;
    }
    return hex;
}

/// A copy of a message in memory of exactly its size, so that a sanitizer sees every step outside.
/// `offset` shifts it off its alignment.
class message {
public:
    explicit message(const std::string& bytes, std::size_t offset = 0)
        : memory_(new char[bytes.size() + offset])
        , offset_(offset) {
        std::memcpy(memory_.get() + offset, bytes.data(), bytes.size());
    }
    static message hex(const std::string& digits) { return message(from_hex(digits)); }

    blob_attr* get() const { return reinterpret_cast<blob_attr*>(memory_.get() + offset_); }

private:
    std::unique_ptr<char[]> memory_;
    std::size_t offset_;
};

/// A field with its name, padded: `id` 0 to 127.
inline std::string field(unsigned id, const std::string& name, const std::string& data) {
    std::string bytes(4, '\0');
    bytes += static_cast<char>(name.size() >> 8);
    bytes += static_cast<char>(name.size() & 0xff);
    bytes += name + '\0';
    bytes.resize((bytes.size() + 3) & ~std::size_t{3});
    bytes += data;
    const auto word =
        htobe32(0x80000000u | id << 24 | static_cast<std::uint32_t>(bytes.size() & 0xffffff));
    std::memcpy(&bytes[0], &word, 4);
    bytes.resize((bytes.size() + 3) & ~std::size_t{3});
    return bytes;
}

/// A message of the given fields.
inline std::string whole(const std::string& fields) {
    const auto word = htobe32(static_cast<std::uint32_t>(fields.size() + 4));
    std::string bytes(4, '\0');
    std::memcpy(&bytes[0], &word, 4);
    return bytes + fields;
}

} // namespace tarn::test
