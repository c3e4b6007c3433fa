/// How much memory the C++ code of the process holds, for tests that must end where they began.
/// Programs that use it are linked with memory_level.cpp, which replaces operator new and delete.
#pragma once

namespace tarn::test {

struct memory_level {
    long blocks = 0;
    long bytes = 0;
};

/// What is allocated through operator new now, by the library as well as by the program.
memory_level current_memory();

/// What malloc() has handed out altogether, libubus's memory included; 0 where that cannot be told
/// (under a sanitizer, or without glibc).
long malloc_bytes();

/// What a test may hold more at its end than at its beginning: containers and allocators keep room
/// for the next time, however long the test was. A loss of one small block per call is above it
/// after a thousand calls.
constexpr long tolerated_bytes = 64 * 1024;
constexpr long tolerated_blocks = 500;

} // namespace tarn::test
