/// Counts and fails the allocations of this thread, for tests of time, leaks and memory shortage.
/// The program is linked with allocations.cpp, which replaces operator new and delete.
#pragma once

#include <cstddef>

namespace tarn::test {

/// How many times operator new was called on this thread.
std::size_t allocations();

/// How many blocks of operator new are alive in the whole program.
long live_blocks();

/// While it lives, the `nth` allocation of this thread, counted from 1, throws std::bad_alloc.
class failing_allocation {
public:
    explicit failing_allocation(std::size_t nth);
    ~failing_allocation();
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;

    /// Whether that allocation was reached.
    bool happened() const;
};

} // namespace tarn::test
