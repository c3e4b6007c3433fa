/// What the process has used so far, for the programs that are measured.
#pragma once

namespace tarn::bench {

/// Counts since the process began, of all its threads, those that have ended included.
struct usage {
    double cpu_ns = 0;
    /// How often a thread gave up its processor to sleep. A kernel without scheduler statistics
    /// counts no wake-ups; but each sleep but the last has ended in one.
    double sleeps = 0;
    /// How often a thread was taken off its processor, sleeps included.
    double switches = 0;
    /// Allocations; below 0 when they are not counted (see count_allocations.c).
    double allocations = -1;
};

/// From the kernel's counters. Any thread.
usage used_so_far();

} // namespace tarn::bench
