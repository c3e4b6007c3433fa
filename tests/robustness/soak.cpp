/// soak [MINUTES [SEED]]: the stress of threads_test for as long as wanted, its counts printed.
#include "stress.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    tarn::test::stress_options options;
    const double minutes = argc > 1 ? std::stod(argv[1]) : 10.0;
    options.duration = std::chrono::milliseconds(static_cast<long long>(minutes * 60'000));
    // One of each every few seconds; never fewer than in the test.
    options.kills = std::max(20, static_cast<int>(minutes * 20));
    options.cancels = std::max(10, static_cast<int>(minutes * 10));
    options.seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : 1;
    tarn::test::stress_counts counts;
    run_stress(options, counts);
    std::cout << counts;
    const bool sound = invariants_hold(counts);
    std::cout << (sound ? "soak: sound" : "soak: FAILED") << " (seed " << options.seed << ")\n";
    return sound ? EXIT_SUCCESS : EXIT_FAILURE;
}
