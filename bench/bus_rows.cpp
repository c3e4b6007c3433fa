/// The rows about calls over the bus, as caller and as service.
#include "bus_rows.h"

#include "daemon.h"
#include "worker.h"

#include <array>
#include <sstream>
#include <stdexcept>

namespace tarn::bench {
namespace {

enum class role { calling, serving };

/// One row: what is measured, and under which load.
struct scenario {
    role measured;
    unsigned window;
    bool look_up_each;

    std::string name() const {
        return std::string(measured == role::calling ? "call, " : "serve, ") +
               (window == 1 ? "one at a time" : std::to_string(window) + " in flight") +
               (look_up_each ? "" : ", one look-up in all");
    }

    /// How many calls take long enough to measure by: up to a second.
    unsigned long calls(const options& chosen) const {
        if (chosen.quick) {
            return window == 1 ? 50 : 2UL * window;
        }
        return window == 1 ? 3000 : 10000;
    }
};

constexpr std::array<scenario, 9> scenarios{{
    {role::calling, 1, true},
    {role::calling, 16, true},
    {role::calling, 128, true},
    {role::calling, 1024, true},
    {role::serving, 1, true},
    {role::serving, 16, true},
    {role::serving, 128, true},
    {role::serving, 1024, true},
    {role::serving, 128, false},
}};

struct counts {
    double cpu_ns = 0;
    double sleeps = 0;
    double switches = 0;
    double allocations = 0;
};

counts counts_of(worker& process) {
    counts got;
    std::istringstream words(process.ask("usage", "usage "));
    if (!(words >> got.cpu_ns >> got.sleeps >> got.switches >> got.allocations)) {
        throw std::runtime_error("a measured program does not tell what it has used");
    }
    return got;
}

/// Has `calls` calls of `object` made, and returns how long they took, in seconds.
double load(worker& caller, const std::string& object, unsigned long calls,
            const scenario& chosen) {
    std::ostringstream command;
    command << "call " << object << ' ' << calls << ' ' << chosen.window << ' '
            << chosen.look_up_each;
    unsigned long answered = 0;
    double nanoseconds = 0;
    std::istringstream words(caller.ask(command.str(), "done "));
    words >> answered >> nanoseconds;
    if (!words || answered != calls) {
        throw std::runtime_error(chosen.name() + ": of " + std::to_string(calls) +
                                 " calls were answered " + std::to_string(answered));
    }
    return nanoseconds / 1e9;
}

/// One of the four processes that work, and its object if it serves.
struct peer {
    peer(const std::string& program, const std::string& served, const std::string& preload)
        : object(served)
        , process(served.empty() ? std::vector<std::string>{program, "call"}
                                 : std::vector<std::string>{program, "serve", served},
                  preload) {
        process.receive("ready");
    }

    const std::string object;
    worker process;
};

struct peers {
    explicit peers(const std::string& preload)
        : tarn_service(TARN_BENCH_TARN_PEER, "bench.tarn", preload)
        , plain_service(TARN_BENCH_PLAIN_PEER, "bench.plain", preload)
        , tarn_caller(TARN_BENCH_TARN_PEER, "", preload)
        , plain_caller(TARN_BENCH_PLAIN_PEER, "", preload) {}

    peer tarn_service;
    peer plain_service;
    peer tarn_caller;
    peer plain_caller;

    /// The other end of what is measured is a plain one, for both sides.
    sample measure(const scenario& chosen, bool tarn, unsigned long calls) {
        const bool calling = chosen.measured == role::calling;
        peer& caller = calling && tarn ? tarn_caller : plain_caller;
        peer& service = !calling && tarn ? tarn_service : plain_service;
        peer& measured = calling ? caller : service;
        load(caller.process, service.object, calls / 10 + 1, chosen); // fills caches and buffers
        const counts before = counts_of(measured.process);
        const double seconds = load(caller.process, service.object, calls, chosen);
        const counts after = counts_of(measured.process);
        const auto made = static_cast<double>(calls);
        return {made / seconds, (after.cpu_ns - before.cpu_ns) / made / 1e3,
                (after.sleeps - before.sleeps) / made, (after.switches - before.switches) / made,
                after.allocations < 0 ? -1 : (after.allocations - before.allocations) / made};
    }
};

} // namespace

void measure_bus(const options& chosen, std::vector<row>& rows) {
    std::vector<scenario> wanted;
    for (const scenario& each : scenarios) {
        if (each.name().find(chosen.only) != std::string::npos) {
            wanted.push_back(each);
        }
    }
    if (wanted.empty()) {
        return;
    }
    const daemon bus(chosen.daemon, chosen.socket);
    const std::size_t first = rows.size();
    {
        peers timed("");
        for (const scenario& each : wanted) {
            row measured{each.name(), {}, {}, {}, {}};
            for (unsigned i = 0; i < chosen.repetitions; ++i) {
                measured.tarn.push_back(timed.measure(each, true, each.calls(chosen)));
                measured.plain.push_back(timed.measure(each, false, each.calls(chosen)));
            }
            rows.push_back(std::move(measured));
        }
    }
    peers counted(TARN_BENCH_COUNT_ALLOCATIONS);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        const unsigned long calls = wanted[i].calls(chosen);
        const auto allocations = [&](bool tarn) -> std::optional<double> {
            const sample one = counted.measure(wanted[i], tarn, calls);
            return one.allocations < 0 ? std::nullopt : std::optional<double>(one.allocations);
        };
        rows[first + i].tarn_allocations = allocations(true);
        rows[first + i].plain_allocations = allocations(false);
    }
}

} // namespace tarn::bench
