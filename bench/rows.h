/// What is measured, for the driver, which prints it.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
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

/// One of the implementations that a row compares.
struct side {
    std::string name; ///< heads its columns
    std::vector<sample> samples;
    std::optional<double> allocations;
};

/// One line of the table. The first side is libtarn; the others are what it is compared with, if
/// anything. The sides have taken turns: samples of the same index belong to one turn.
struct row {
    std::string name;
    std::vector<side> sides;
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

/// How the rate of one side compares with another's.
struct comparison {
    double middle = 0;
    double lowest = 0;
    double highest = 0;
};

/// Of the ratios of each turn.
inline comparison compare(const side& one, const side& other) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < one.samples.size(); ++i) {
        ratios.push_back(one.samples[i].rate / other.samples.at(i).rate);
    }
    const auto ends = std::minmax_element(ratios.begin(), ratios.end());
    return {median(ratios), *ends.first, *ends.second};
}

/// The names of all that libtarn is compared with in these rows, each once, in their order.
inline std::vector<std::string> others(const std::vector<row>& rows) {
    std::vector<std::string> names;
    for (const row& each : rows) {
        for (std::size_t i = 1; i < each.sides.size(); ++i) {
            const std::string& name = each.sides[i].name;
            if (std::find(names.begin(), names.end(), name) == names.end()) {
                names.push_back(name);
            }
        }
    }
    return names;
}

/// The side of this name; null where the row has none.
inline const side* find_side(const row& in, const std::string& name) {
    const auto found = std::find_if(in.sides.begin(), in.sides.end(),
                                    [&name](const side& each) { return each.name == name; });
    return found == in.sides.end() ? nullptr : &*found;
}

} // namespace tarn::bench
