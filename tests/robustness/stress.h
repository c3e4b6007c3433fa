/// The stress of the client by many threads on a bus that keeps dying: for the test and for the
/// long run by hand.
#pragma once

#include "memory_level.h"
#include "operation.h"

#include <chrono>
#include <iosfwd>

namespace tarn::test {

struct stress_options {
    std::chrono::milliseconds duration{3000}; ///< at least: calls are served between all events
    int kills = 20;    ///< times that the daemon is killed, spread over the duration
    int cancels = 10;  ///< times that everything is cancelled, likewise
    unsigned seed = 1; ///< of the threads' choices
};

/// What happened. `after` is to be compared with `before`.
struct stress_counts {
    tally calls;
    tally objects; ///< additions and removals
    tally sends;   ///< data replies; one that its connection does not survive is unheard
    std::atomic<long> served{0};
    std::atomic<long> answered{0};
    std::atomic<long> dropped{0};
    std::atomic<long> completed_calls{0}; ///< with success
    std::atomic<long> timed_out{0};
    std::atomic<long> aborted{0};
    std::atomic<long> connections{0};
    long limited_left = 0; ///< calls with a time limit that were pending long after it
    int kills = 0;
    int cancels = 0;
    bool stalled = false; ///< given up, since no call had been served for a minute
    held_memory before;
    held_memory after;
    long malloc_before = 0;
    long malloc_after = 0;
};

/// Runs the stress with eight threads beside the application's loop and fills `counts`. Needs the
/// process to itself.
void run_stress(const stress_options& options, stress_counts& counts);

/// Whether nothing was lost, run twice, run late or leaked.
bool invariants_hold(const stress_counts& counts);

std::ostream& operator<<(std::ostream& out, const stress_counts& counts);

} // namespace tarn::test
