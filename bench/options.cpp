/// The command line of the driver.
#include "options.h"

#include <cstdlib>
#include <iostream>

namespace tarn::bench {
namespace {

constexpr const char* help = R"(usage: tarn_bench [OPTION...]

  --peers           calls beside sdbus-c++ over a D-Bus daemon as well (needs TARN_BENCH_PEERS)
  --idle            the system calls of a client that has nothing to do (needs strace)
  --pin             everything on one processor: the daemon, both ends, and this program
  --batch           libtarn's private thread under SCHED_BATCH
  --quick           each measurement once and short: shows that it works, not how fast
  --repetitions N   of each measurement (5)
  --only TEXT       only the rows whose name holds TEXT
  --svg FILE        draws the ratios as a bar chart
  --goals FILE      marks in the chart: lines of a ratio and the name of a row (bench/goals.txt)
  --daemon PATH     the bus daemon to start
  --socket PATH     its socket, for a libubus that has the path compiled in
)";

[[noreturn]] void refuse(const std::string& why) {
    std::cerr << "tarn_bench: " << why << "\n\n" << help;
    std::exit(2);
}

} // namespace

options parse_options(int argc, char** argv) {
    options parsed;
    parsed.daemon = TARN_BENCH_DAEMON;
    parsed.socket = TARN_BENCH_SOCKET;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const auto value = [&] {
            if (++i == argc) {
                refuse(word + ": a value is missing");
            }
            return std::string(argv[i]);
        };
        if (word == "--help" || word == "-h") {
            std::cout << help;
            std::exit(0);
        } else if (word == "--pin") {
            parsed.pin = true;
        } else if (word == "--batch") {
            parsed.batch = true;
        } else if (word == "--idle") {
            parsed.idle = true;
        } else if (word == "--peers") {
            parsed.peers = true;
        } else if (word == "--quick") {
            parsed.quick = true;
            parsed.repetitions = 1;
        } else if (word == "--repetitions") {
            parsed.repetitions = static_cast<unsigned>(std::strtoul(value().c_str(), nullptr, 10));
            if (parsed.repetitions == 0) {
                refuse(word + ": not a number above 0");
            }
        } else if (word == "--only") {
            parsed.only = value();
        } else if (word == "--svg") {
            parsed.svg = value();
        } else if (word == "--goals") {
            parsed.goals = value();
        } else if (word == "--daemon") {
            parsed.daemon = value();
        } else if (word == "--socket") {
            parsed.socket = value();
        } else {
            refuse("what is " + word + "?");
        }
    }
    if (parsed.daemon.empty()) {
        refuse("which daemon? (--daemon PATH, and --socket PATH as its libubus has it)");
    }
    if (parsed.idle && TARN_BENCH_STRACE[0] == '\0') {
        refuse("--idle: no strace was found when this was built");
    }
    if (parsed.peers && TARN_BENCH_SDBUS_PEER[0] == '\0') {
        refuse("--peers: this was built without TARN_BENCH_PEERS");
    }
    return parsed;
}

} // namespace tarn::bench
