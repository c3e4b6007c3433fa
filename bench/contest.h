/// One side of a row about calls: its processes, and how they are measured.
#pragma once

#include "rows.h"
#include "scenario.h"
#include "worker.h"

#include <string>
#include <vector>

namespace tarn::bench {

/// A library that calls are made with. `start` are the first words of its programs' command line.
struct maker {
    std::string name;
    std::string object; ///< what its service is called on the bus
    std::vector<std::string> start;
    /// Whether it talks over the same daemon as plain libubus. The end that is not measured is a
    /// plain one then, else one of its own.
    bool on_ubus = true;
};

/// A caller and a service, in a process each, one of them (or both) the one to be measured. Lives
/// for one row, so that no row affects another. Failures throw std::runtime_error, also when a call
/// was not answered correctly.
class contest {
public:
    /// `preload`: a library to load before both, or empty.
    contest(const options& chosen, const scenario& load, const maker& measured, const maker& plain,
            const std::string& preload);

    sample measure();

private:
    struct counts {
        double cpu_ns = 0;
        double sleeps = 0;
        double switches = 0;
        double allocations = 0;
    };

    counts used();
    double make(unsigned long calls);
    void leave_pending();

    const options& chosen_;
    const scenario load_;
    const std::string object_;
    worker service_;
    worker caller_;
    std::vector<worker*> measured_;
};

} // namespace tarn::bench
