/// Benchmarks of one function each, with Google Benchmark, for micro.cpp to run.
#pragma once

#include "usage.h"

#include <benchmark/benchmark.h>

namespace tarn::bench {

/// What the turns of a benchmark use, from its construction to stop(): as counters of the result,
/// per turn.
class turns {
public:
    explicit turns(benchmark::State& state)
        : state_(state)
        , before_(used_so_far()) {}

    /// `each` is how many of what is measured one iteration does.
    void stop(double each = 1) {
        const usage after = used_so_far();
        const double done = static_cast<double>(state_.iterations()) * each;
        state_.counters["turns"] = done;
        state_.counters["cpu"] = (after.cpu_ns - before_.cpu_ns) / done;
        state_.counters["sleeps"] = (after.sleeps - before_.sleeps) / done;
        state_.counters["switches"] = (after.switches - before_.switches) / done;
        state_.counters["allocations"] =
            after.allocations < 0 ? -1 : (after.allocations - before_.allocations) / done;
    }

private:
    benchmark::State& state_;
    const usage before_;
};

void register_encoding();
void register_decoding();
void register_posts();

} // namespace tarn::bench
