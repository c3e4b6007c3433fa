/// The limits of libubox's formats, for libubox itself.
#pragma once

#include <cstddef>

namespace ubox {

/// Longest attribute, in bytes, header included: more does not go into the 24 bits of its length.
inline constexpr std::size_t longest_attribute = 0xffffff;

/// Largest buffer, in bytes. One byte more than a message may have, which nothing ever fills.
inline constexpr std::size_t largest_buffer = 0x1000000;

/// Longest name of a field, in bytes, without its NUL.
inline constexpr std::size_t longest_name = 0xffff;

} // namespace ubox
