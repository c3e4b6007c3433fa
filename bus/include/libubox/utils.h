/// Numbers in the byte order of the wire, which is big-endian, for C and C++; <endian.h> has these
/// only outside of strict C.
#pragma once

#include <stdint.h>

#define cpu_to_be16(value)                                                                         \
    ((uint16_t)(__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? (value) : __builtin_bswap16(value)))
#define cpu_to_be32(value)                                                                         \
    ((uint32_t)(__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? (value) : __builtin_bswap32(value)))
#define cpu_to_be64(value)                                                                         \
    ((uint64_t)(__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? (value) : __builtin_bswap64(value)))

#define be16_to_cpu(value) cpu_to_be16(value)
#define be32_to_cpu(value) cpu_to_be32(value)
#define be64_to_cpu(value) cpu_to_be64(value)
