/* A library to load before a program (LD_PRELOAD), so that all its allocations are counted: those
 * of malloc() and its kin, which operator new and every library of the process end in. */
#include <dlfcn.h>
#include <stdatomic.h>
#include <stddef.h>

static atomic_ulong allocations;

/* For usage.cpp, which looks for it by its name. */
unsigned long tarn_bench_allocations(void);
unsigned long tarn_bench_allocations(void) {
    return atomic_load_explicit(&allocations, memory_order_relaxed);
}

/* Several threads may store the same address at once. */
static void* next(_Atomic(void*)* known, const char* name) {
    void* found = atomic_load_explicit(known, memory_order_relaxed);
    if (found == NULL) {
        found = dlsym(RTLD_NEXT, name);
        atomic_store_explicit(known, found, memory_order_relaxed);
    }
    atomic_fetch_add_explicit(&allocations, 1, memory_order_relaxed);
    return found;
}

void* malloc(size_t size) {
    static _Atomic(void*) known;
    return ((void* (*)(size_t))next(&known, "malloc"))(size);
}

void* calloc(size_t count, size_t size) {
    static _Atomic(void*) known;
    return ((void* (*)(size_t, size_t))next(&known, "calloc"))(count, size);
}

void* realloc(void* memory, size_t size) {
    static _Atomic(void*) known;
    return ((void* (*)(void*, size_t))next(&known, "realloc"))(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    static _Atomic(void*) known;
    return ((void* (*)(size_t, size_t))next(&known, "aligned_alloc"))(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
    static _Atomic(void*) known;
    return ((int (*)(void**, size_t, size_t))next(&known, "posix_memalign"))(memory, alignment,
                                                                             size);
}
