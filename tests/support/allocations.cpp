/// operator new and delete, and malloc()'s kin, that count, and fail when a test asks for it. The
/// linker sends calls of the latter here (--wrap=NAME: NAME becomes __wrap_NAME, and the real one
/// is __real_NAME).
#include "support/allocations.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
}

namespace {

thread_local std::size_t count = 0;
thread_local std::size_t fail_at = 0; // the count at which to fail; 0 for never
thread_local std::size_t fail_times = 1;
std::atomic<long> blocks{0};
std::atomic<long> bytes{0};

bool fails() {
    ++count;
    return fail_at != 0 && count >= fail_at && count - fail_at < fail_times;
}

void account(void* memory, long sign) {
    blocks.fetch_add(sign, std::memory_order_relaxed);
    bytes.fetch_add(sign * static_cast<long>(::malloc_usable_size(memory)),
                    std::memory_order_relaxed);
}

void* allocate(std::size_t size) {
    void* const memory = fails() ? nullptr : __real_malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    account(memory, 1);
    return memory;
}

void release(void* memory) noexcept {
    if (memory != nullptr) {
        account(memory, -1);
        std::free(memory);
    }
}

} // namespace

extern "C" {

void* __wrap_malloc(std::size_t size) {
    return fails() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(std::size_t number, std::size_t size) {
    return fails() ? nullptr : __real_calloc(number, size);
}

void* __wrap_realloc(void* memory, std::size_t size) {
    return fails() ? nullptr : __real_realloc(memory, size);
}

} // extern "C"

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

held_memory memory_held() {
    return {blocks.load(), bytes.load()};
}

failing_allocation::failing_allocation(std::size_t nth, std::size_t times) {
    fail_at = count + nth;
    fail_times = times;
}

failing_allocation::~failing_allocation() {
    fail_at = 0;
}

bool failing_allocation::happened() const {
    return count >= fail_at;
}

} // namespace tarn::test
