/// Threads with the stack that musl gives by default, for tests of what must not recurse.
#pragma once

#include <cstddef>
#include <pthread.h>
#include <system_error>
#include <type_traits>

namespace tarn::test {

// ThreadSanitizer's own data does not fit into that; recursion as deep as a message allows does not
// fit into a mebibyte either.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t small_stack = 1024 * 1024;
#else
constexpr std::size_t small_stack = 128 * 1024;
#endif

/// Gives the small stack to every thread that is made from here on without a size of its own, as
/// `ulimit -s 128` does for a process that starts under it.
inline void make_small_stacks_the_default() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, small_stack);
    const int error = pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_setattr_default_np");
    }
}

/// The size of the calling thread's stack, in bytes.
inline std::size_t stack_size() {
    pthread_attr_t attributes;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
    }
    return size;
}

/// Runs `body` on a thread with the small stack and waits for its end.
template <class Body>
void on_small_stack(Body&& body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, small_stack);
    pthread_t thread;
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::remove_reference_t<Body>*>(argument))();
        return nullptr;
    };
    const int error = pthread_create(&thread, &attributes, run, &body);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_create");
    }
    pthread_join(thread, nullptr);
}

} // namespace tarn::test
