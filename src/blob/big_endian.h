/// Numbers in network byte order in memory of any alignment, for the encoder and the readers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace tarn::blob::detail {

/// The unsigned integer that carries the bits of a number.
template <class T>
using bits_of = std::conditional_t<
    sizeof(T) == 8, std::uint64_t,
    std::conditional_t<sizeof(T) == 4, std::uint32_t,
                       std::conditional_t<sizeof(T) == 2, std::uint16_t, std::uint8_t>>>;

template <class T>
std::array<unsigned char, sizeof(T)> to_big_endian(T value) noexcept {
    bits_of<T> bits;
    std::memcpy(&bits, &value, sizeof(value));
    std::array<unsigned char, sizeof(T)> encoded;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        encoded[i] = static_cast<unsigned char>(bits >> (8 * (sizeof(T) - 1 - i)));
    }
    return encoded;
}

/// `from` has at least sizeof(T) bytes.
template <class T>
T from_big_endian(const unsigned char* from) noexcept {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        bits = bits << 8 | from[i];
    }
    const auto narrow = static_cast<bits_of<T>>(bits);
    T value;
    std::memcpy(&value, &narrow, sizeof(value));
    return value;
}

} // namespace tarn::blob::detail
