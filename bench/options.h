/// The command line of the driver.
#pragma once

#include <string>

namespace tarn::bench {

struct options {
    std::string daemon;
    std::string socket; ///< compiled into libubus; empty with the bundled one
    std::string only;   ///< rows whose name holds this; empty: all
    std::string svg;    ///< the file of the chart; empty: none
    std::string goals;  ///< the file of the goals in it; empty: none
    unsigned repetitions = 5;
    bool quick = false;
    bool pin = false;
    bool batch = false; ///< libtarn's private thread under SCHED_BATCH
    bool idle = false;  ///< a client at rest, instead of the table
    bool peers = false; ///< beside sdbus-c++ as well
};

/// Ends the process with a message for an argument that it does not know, and for --help.
options parse_options(int argc, char** argv);

} // namespace tarn::bench
