/// Measures libtarn beside plain libubus and libubox and prints one table: see docs/performance.md.
#include "bus_rows.h"
#include "chart.h"
#include "goals.h"
#include "idle.h"
#include "micro_rows.h"
#include "options.h"
#include "table.h"

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sched.h>
#include <sstream>
#include <stdexcept>

namespace {

using namespace tarn::bench;

/// On the first processor that is allowed; what is started from here stays there too.
void pin() {
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof(allowed), &allowed) == 0) {
        for (unsigned i = 0; i < CPU_SETSIZE; ++i) {
            if (CPU_ISSET(i, &allowed)) {
                CPU_ZERO(&allowed);
                CPU_SET(i, &allowed);
                if (::sched_setaffinity(0, sizeof(allowed), &allowed) == 0) {
                    return;
                }
            }
        }
    }
    throw std::runtime_error("cannot stay on one processor");
}

/// "Daemon: ubusd. Processors: 2. Build: Release. Medians of 5 repetitions."
std::string circumstances(const options& chosen) {
    cpu_set_t allowed;
    ::sched_getaffinity(0, sizeof(allowed), &allowed);
    std::ostringstream text;
    text << "Daemon: " << std::filesystem::path(chosen.daemon).filename().string()
         << (chosen.peers ? ", for sdbus-c++ dbus-daemon" : "")
         << ". Processors: " << CPU_COUNT(&allowed)
         << (chosen.batch ? ". Private thread: SCHED_BATCH" : "") << ". Build: " << TARN_BENCH_BUILD
         << ". Medians of " << chosen.repetitions
         << (chosen.quick ? " repetition, too short to say how fast." : " repetitions.");
    return text.str();
}

void explain(const options& chosen) {
    std::cout << circumstances(chosen) << '\n'
              << (chosen.peers
                      ? "In call rows, tarn and plain call a plain service, sdbus-c++ its own."
                        " Both ends: caller and service are alike, the figures are of both.\n\n"
                      : "Posts stand beside nothing: libubox has no function that hands its loop"
                        " work from another thread.\n\n");
}

goals chosen_goals(const options& chosen) {
    if (chosen.goals.empty()) {
        return {};
    }
    std::ifstream file(chosen.goals);
    if (!file) {
        throw std::runtime_error("cannot read " + chosen.goals);
    }
    return read_goals(file);
}

} // namespace

int main(int argc, char** argv) {
    const options chosen = parse_options(argc, argv);
    try {
        if (chosen.pin) {
            pin();
        }
        if (chosen.batch && ::setenv("TARN_BENCH_BATCH", "1", 1) != 0) { // for the peers
            throw std::runtime_error("cannot set a variable of the environment");
        }
        if (chosen.idle) {
            measure_idle(chosen, std::cout);
            return 0;
        }
        // A wrong file is reported before the minutes of measuring, not after.
        const goals to_reach = chosen_goals(chosen);
        std::ofstream chart;
        if (!chosen.svg.empty()) {
            chart.open(chosen.svg);
            if (!chart) {
                throw std::runtime_error("cannot write " + chosen.svg);
            }
        }
        std::vector<row> rows;
        measure_bus(chosen, rows);
        if (!chosen.peers) {
            measure_micro(chosen, rows);
        }
        if (rows.empty()) {
            throw std::runtime_error("no row holds '" + chosen.only + "'");
        }
        explain(chosen);
        print_table(std::cout, rows);
        if (chart.is_open()) {
            draw_chart(chart, rows, to_reach, circumstances(chosen));
            if (!chart.flush()) {
                throw std::runtime_error("cannot write " + chosen.svg);
            }
        }
    } catch (const std::exception& failure) {
        std::cerr << "tarn_bench: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
