/// What the fuzz targets make of their input: numbers and pieces taken off its front, and messages
/// in memory that ends where the message ends.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "bus.h"

namespace fuzz {

/// Ends the process, and so reports the input, unless `held`.
inline void require(bool held, const char* what) {
    if (!held) {
        std::fprintf(stderr, "violated: %s\n", what);
        std::abort();
    }
}

/// The input, taken from its front. Zeros and nothing once it is used up.
class input {
public:
    input(const std::uint8_t* data, std::size_t size)
        : data_(data)
        , size_(size) {}

    bool empty() const { return size_ == 0; }
    const std::uint8_t* data() const { return data_; }
    std::size_t size() const { return size_; }

    std::uint8_t byte() {
        if (size_ == 0) {
            return 0;
        }
        --size_;
        return *data_++;
    }

    std::uint64_t number(std::size_t bytes) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i) {
            value = value << 8 | byte();
        }
        return value;
    }

    /// The next `size` bytes, or as many as are left.
    input piece(std::size_t size) {
        const std::size_t taken = std::min(size, size_);
        const input front(data_, taken);
        data_ += taken;
        size_ -= taken;
        return front;
    }

    std::string text(std::size_t size) {
        const input taken = piece(size);
        return std::string(reinterpret_cast<const char*>(taken.data_), taken.size_);
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
};

/// Attributes in memory of exactly their size (at least a header), so that a sanitizer sees every
/// step outside.
class exact_copy {
public:
    explicit exact_copy(const input& bytes)
        : size_(std::max(bytes.size(), sizeof(blob_attr)))
        , memory_(static_cast<char*>(std::calloc(1, size_))) {
        require(memory_ != nullptr, "memory for the input");
        if (!bytes.empty()) {
            std::memcpy(memory_, bytes.data(), bytes.size());
        }
    }
    ~exact_copy() { std::free(memory_); }
    exact_copy(const exact_copy&) = delete;
    exact_copy& operator=(const exact_copy&) = delete;

    blob_attr* get() const { return reinterpret_cast<blob_attr*>(memory_); }
    char* begin() const { return memory_; }
    std::size_t size() const { return size_; }

private:
    std::size_t size_;
    char* memory_;
};

/// A received message: `bytes`, the length in whose header is set right, as libubus makes sure of
/// before it passes a message on. Fewer bytes than a header become a header that says so little.
class message : public exact_copy {
public:
    explicit message(const input& bytes)
        : exact_copy(bytes) {
        const auto length = static_cast<std::uint32_t>(bytes.size());
        get()->id_len =
            htonl((ntohl(get()->id_len) & ~BLOB_ATTR_LEN_MASK) | (length & BLOB_ATTR_LEN_MASK));
    }
};

} // namespace fuzz
