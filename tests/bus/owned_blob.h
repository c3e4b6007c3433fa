/// A message in memory of exactly its own size, so that a sanitizer sees every byte read beyond it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "bus.h"

namespace ubox_test {

class owned_blob {
public:
    explicit owned_blob(const std::string& hex)
        : size_(hex.size() / 2)
        , bytes_(new char[size_]) {
        for (std::size_t i = 0; i < size_; ++i) {
            bytes_[i] = static_cast<char>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
        }
    }
    owned_blob(const char* bytes, std::size_t size)
        : size_(size)
        , bytes_(new char[size]) {
        std::copy(bytes, bytes + size, bytes_.get());
    }

    blob_attr* attr() const { return reinterpret_cast<blob_attr*>(bytes_.get()); }
    char* bytes() const { return bytes_.get(); }
    std::size_t size() const { return size_; }
    std::size_t offset_of(const void* inside) const {
        return static_cast<std::size_t>(static_cast<const char*>(inside) - bytes_.get());
    }

private:
    std::size_t size_;
    std::unique_ptr<char[]> bytes_;
};

inline std::string hex(const void* bytes, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<const std::uint8_t*>(bytes)[i];
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

/// A whole message, or an attribute with its gap.
inline std::string hex(const blob_attr* attr) {
    return hex(attr, blob_pad_len(attr));
}

/// A buffer that frees itself.
struct buffer : blob_buf {
    explicit buffer(int id = 0)
        : blob_buf() {
        if (blob_buf_init(this, id) != 0) {
            throw std::runtime_error("blob_buf_init");
        }
    }
    buffer(const buffer&) = delete;
    buffer& operator=(const buffer&) = delete;
    ~buffer() { blob_buf_free(this); }
};

} // namespace ubox_test
