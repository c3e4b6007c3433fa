/// The rows about one function each: encoding, decoding, posts.
#include "micro_rows.h"

#include "worker.h"

#include <sstream>
#include <stdexcept>

namespace tarn::bench {
namespace {

struct benchmark {
    std::string name;
    bool beside_plain;
};

std::vector<benchmark> benchmarks() {
    std::vector<benchmark> all;
    for (const char* const what :
         {"encode, ", "encode, builder kept, ", "decode, ", "decode, beside a walk, "}) {
        for (const char* const size : {"1 field", "6 fields", "100 fields", "100 KiB"}) {
            all.push_back({std::string(what) + size, true});
        }
    }
    all.push_back({"there and back", true});
    for (const char* const what : {"post to uloop, ", "post to epoll_loop, "}) {
        for (const char* const threads : {"1 thread", "8 threads"}) {
            all.push_back({std::string(what) + threads, false});
        }
    }
    return all;
}

sample run(worker& process, const std::string& name) {
    std::istringstream words(process.ask("run " + name, "ran "));
    double ns = 0;
    double cpu_ns = 0;
    sample one;
    if (!(words >> ns >> cpu_ns >> one.sleeps >> one.switches >> one.allocations)) {
        throw std::runtime_error("no result of " + name);
    }
    one.rate = 1e9 / ns;
    one.cpu_us = cpu_ns / 1e3;
    return one;
}

std::optional<double> allocations(worker& process, const std::string& name) {
    const sample one = run(process, name);
    return one.allocations < 0 ? std::nullopt : std::optional<double>(one.allocations);
}

} // namespace

void measure_micro(const options& chosen, std::vector<row>& rows) {
    worker timed({TARN_BENCH_MICRO, chosen.quick ? "0.001" : "0.2"});
    timed.receive("ready");
    worker counted({TARN_BENCH_MICRO, "0.001"}, TARN_BENCH_COUNT_ALLOCATIONS);
    counted.receive("ready");
    for (const auto& [name, beside_plain] : benchmarks()) {
        if (name.find(chosen.only) == std::string::npos) {
            continue;
        }
        row measured{name, {{"tarn", {}, {}}}};
        if (beside_plain) {
            measured.sides.push_back({"plain", {}, {}});
        }
        for (unsigned i = 0; i < chosen.repetitions; ++i) {
            for (side& each : measured.sides) {
                each.samples.push_back(run(timed, name + '/' + each.name));
            }
        }
        for (side& each : measured.sides) {
            each.allocations = allocations(counted, name + '/' + each.name);
        }
        rows.push_back(std::move(measured));
    }
}

} // namespace tarn::bench
