/// Whether memory is back at its level, for tests that must end where they began.
#pragma once

#include "support/allocations.h"

#include <malloc.h>

namespace tarn::test {

/// Whether no more is held at a test's end than at its beginning but what containers and allocators
/// keep for the next time, however long the test was: 64 KiB in 500 blocks. A loss of one small
/// block per call is above it after a thousand calls.
inline bool back_at_its_level(const held_memory& before, const held_memory& after) {
    return after.bytes - before.bytes <= 64 * 1024 && after.blocks - before.blocks <= 500;
}

/// What malloc() keeps for the next time in its own lists counts as handed out, some KiB a thread.
constexpr long malloc_tolerance = 256 * 1024;

/// To be called before there are threads: they then share one arena, which malloc_bytes() counts.
inline void count_every_malloc() {
#ifdef __GLIBC__
    ::mallopt(M_ARENA_MAX, 1);
#endif
}

/// What malloc() has handed out altogether, libubus's memory included; 0 where that cannot be told
/// (under a sanitizer, or without glibc).
inline long malloc_bytes() {
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARN_OWN_MALLOC
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARN_OWN_MALLOC
#endif
#if defined(__GLIBC__) && !defined(TARN_OWN_MALLOC)
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
#else
    return 0;
#endif
}

} // namespace tarn::test
