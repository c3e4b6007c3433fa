/// operator new and delete that count what is held.
#include "memory_level.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {

std::atomic<long> blocks{0};
std::atomic<long> bytes{0};

void* allocate(std::size_t size) {
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    blocks.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(static_cast<long>(::malloc_usable_size(memory)), std::memory_order_relaxed);
    return memory;
}

void release(void* memory) noexcept {
    if (memory != nullptr) {
        blocks.fetch_sub(1, std::memory_order_relaxed);
        bytes.fetch_sub(static_cast<long>(::malloc_usable_size(memory)), std::memory_order_relaxed);
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

memory_level current_memory() {
    return {blocks.load(), bytes.load()};
}

long malloc_bytes() {
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
