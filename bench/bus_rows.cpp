/// The rows about calls over the bus, as caller and as service.
#include "bus_rows.h"

#include "contest.h"
#include "daemon.h"

#include <memory>
#include <stdexcept>

namespace tarn::bench {
namespace {

const maker on_tarn{"tarn", "bench.tarn", {TARN_BENCH_TARN_PEER}};
const maker on_plain{"plain", "bench.plain", {TARN_BENCH_PLAIN_PEER}};

/// Libtarn first, then those that it is compared with. `bus` is the D-Bus daemon, if there is one.
std::vector<maker> makers(const daemon* bus) {
    std::vector<maker> all{on_tarn, on_plain};
    if (bus != nullptr) {
        all.push_back({"sdbus-c++", "bench.sdbus", {TARN_BENCH_SDBUS_PEER, bus->address()}, false});
    }
    return all;
}

/// The makers take turns.
row measure(const options& chosen, const scenario& load, const std::vector<maker>& all) {
    row measured{load.name(), {}};
    std::vector<std::unique_ptr<contest>> contests;
    for (const maker& each : all) {
        measured.sides.push_back({each.name, {}, {}});
        contests.push_back(std::make_unique<contest>(chosen, load, each, on_plain, ""));
    }
    for (unsigned turn = 0; turn < chosen.repetitions; ++turn) {
        for (std::size_t i = 0; i < all.size(); ++i) {
            measured.sides[i].samples.push_back(contests[i]->measure());
        }
    }
    return measured;
}

/// In a pass of its own, since counting takes time.
void count_allocations(const options& chosen, const scenario& load, const std::vector<maker>& all,
                       row& measured) {
    for (std::size_t i = 0; i < all.size(); ++i) {
        contest counted(chosen, load, all[i], on_plain, TARN_BENCH_COUNT_ALLOCATIONS);
        const sample one = counted.measure();
        if (one.allocations >= 0) {
            measured.sides[i].allocations = one.allocations;
        }
    }
}

} // namespace

void measure_bus(const options& chosen, std::vector<row>& rows) {
    const std::vector<scenario> wanted = scenarios(chosen);
    if (wanted.empty()) {
        return;
    }
    const auto ubus = daemon::ubus(chosen.daemon, chosen.socket);
    const auto dbus = chosen.peers ? daemon::dbus(TARN_BENCH_DBUS_DAEMON) : nullptr;
    const std::vector<maker> all = makers(dbus.get());
    for (const scenario& each : wanted) {
        rows.push_back(measure(chosen, each, all));
        count_allocations(chosen, each, all, rows.back());
    }
}

} // namespace tarn::bench
