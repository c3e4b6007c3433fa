/// operator new and delete that count, and fail when a test asks for it.
#include "blob/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t count = 0;
thread_local std::size_t fail_at = 0; // the count at which to fail; 0 for never
std::atomic<long> alive{0};

void* allocate(std::size_t size) {
    if (++count == fail_at) {
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size ? size : 1);
    if (!memory) {
        throw std::bad_alloc();
    }
    ++alive;
    return memory;
}

void release(void* memory) noexcept {
    if (memory) {
        --alive;
        std::free(memory);
    }
}

} // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    release(memory);
}
void operator delete[](void* memory) noexcept {
    release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    release(memory);
}

namespace tarn::test {

std::size_t allocations() {
    return count;
}

long live_blocks() {
    return alive;
}

failing_allocation::failing_allocation(std::size_t nth) {
    fail_at = count + nth;
}

failing_allocation::~failing_allocation() {
    fail_at = 0;
}

bool failing_allocation::happened() const {
    return count >= fail_at;
}

} // namespace tarn::test
