/// Counts and fails allocations, for tests of time, leaks and memory shortage. The program is
/// linked with TARN_ALLOCATION_SOURCES and TARN_ALLOCATION_LINK_OPTIONS (see allocations.cmake).
#pragma once

#include <cstddef>

namespace tarn::test {

/// How many times this thread has asked for memory: through operator new anywhere in the process,
/// and through malloc(), calloc() and realloc() in the code linked statically (with tarn_internal
/// and the bundled bus that is all of libtarn, libubox and libubus).
std::size_t allocations();

/// What operator new has handed out and not got back, in the whole process.
struct held_memory {
    long blocks = 0;
    long bytes = 0;
};
held_memory memory_held();

/// While it lives, the `nth` allocation of this thread, counted from 1 as above, fails, and with it
/// so many `times` in a row: std::bad_alloc or a null pointer.
class failing_allocation {
public:
    explicit failing_allocation(std::size_t nth, std::size_t times = 1);
    ~failing_allocation();
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;

    /// Whether the first of these was reached.
    bool happened() const;
};

} // namespace tarn::test
