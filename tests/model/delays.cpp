/// Random delays where threads meet: at the library's hand-overs, which its build for the model
/// calls out for, and around every lock.
#include "delays.h"

#include "chance.h"

#include <atomic>
#include <ctime>
#include <pthread.h>
#include <sched.h>

namespace tarn::test {

namespace {

std::atomic<std::uintptr_t> sequence_seed{0}; // not more: 32-bit MIPS has no atomic of 64 bits
std::atomic<unsigned> handover_share{0};
std::atomic<unsigned> lock_share{0};

struct thread_choices {
    unsigned number = 0;
    std::uint64_t seed = 0;
    chance random;
};

thread_local thread_choices mine;

void delay(unsigned share) {
    if (share == 0) {
        return;
    }
    const std::uint64_t seed = sequence_seed.load(std::memory_order_relaxed);
    if (mine.seed != seed) {
        mine.seed = seed;
        mine.random = chance(seed * 31 + mine.number);
    }
    if (mine.random.below(1000) >= share) {
        return;
    }
    if (mine.random.percent(50)) {
        ::sched_yield();
        return;
    }
    const timespec pause{0, 1000L * static_cast<long>(1 + mine.random.below(200))};
    ::nanosleep(&pause, nullptr);
}

} // namespace

void set_delays(std::uint64_t seed, unsigned handovers, unsigned locks) {
    sequence_seed = static_cast<std::uintptr_t>(seed);
    handover_share = handovers;
    lock_share = locks;
}

void number_thread(unsigned number) {
    mine.number = number;
}

void maybe_delay() {
    delay(handover_share.load(std::memory_order_relaxed));
}

} // namespace tarn::test

namespace tarn {

void handover();

/// The library's hook, in its build for the model.
void handover() {
    test::maybe_delay();
}

} // namespace tarn

// Every lock of the program, by way of the linker (--wrap): in front of a lock another thread may
// overtake, behind an unlock it may come between.
extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    tarn::test::delay(tarn::test::lock_share.load(std::memory_order_relaxed));
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    tarn::test::delay(tarn::test::lock_share.load(std::memory_order_relaxed));
    return result;
}
}
