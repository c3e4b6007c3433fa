/// What is measured of either side, for the driver.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace tarn::bench {

/// One measurement, per call (or per turn of what is measured).
struct sample {
    double rate = 0; ///< calls per second
    double cpu_us = 0;
    double sleeps = 0;
    double switches = 0;
    double allocations = -1; ///< below 0 when they were not counted
};

/// One line of the table. The samples of the two sides are in the order in which they were taken,
/// in turns.
struct row {
    std::string name;
    std::vector<sample> tarn;
    std::vector<sample> plain; ///< empty where there is nothing to stand beside
    std::optional<double> tarn_allocations;
    std::optional<double> plain_allocations;
};

/// The middle one; of an even number the mean of the two.
inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

/// The median of one member over samples.
inline double median(const std::vector<sample>& samples, double sample::*member) {
    std::vector<double> values;
    values.reserve(samples.size());
    for (const sample& each : samples) {
        values.push_back(each.*member);
    }
    return median(values);
}

} // namespace tarn::bench
