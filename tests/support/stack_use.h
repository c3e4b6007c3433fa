/// How much of its stack a thread uses, for tests of what must fit into a small one.
#pragma once

#include <cstddef>
#include <pthread.h>

namespace tarn::test {

/// Paints what is left of the calling thread's stack; used() then tells how far down it has been
/// written to. Both on this thread. The stack has to be there as a whole, which those of all
/// threads but the first are.
class stack_use {
public:
    __attribute__((noinline)) stack_use() {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
            return;
        }
        void* lowest = nullptr;
        std::size_t size = 0;
        pthread_attr_getstack(&attributes, &lowest, &size);
        pthread_attr_destroy(&attributes);
        lowest_ = static_cast<unsigned char*>(lowest);
        size_ = size;
        // Below what this function may use itself.
        const auto* const here = static_cast<unsigned char*>(__builtin_frame_address(0));
        for (auto* at = lowest_; at < here - margin; ++at) {
            *at = paint;
        }
    }

    std::size_t size() const { return size_; }

    /// Bytes from the top of the stack to the lowest one in use since the painting; what the C
    /// library keeps up there counts. 0 when the stack is not known.
    std::size_t used() const {
        std::size_t untouched = 0;
        while (untouched < size_ && lowest_[untouched] == paint) {
            ++untouched;
        }
        return size_ - untouched;
    }

private:
    static constexpr unsigned char paint = 0xa5;
    static constexpr std::ptrdiff_t margin = 1024;

    volatile unsigned char* lowest_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace tarn::test
