/// One side of a row about calls: its processes, and how they are measured.
#include "contest.h"

#include <sstream>
#include <stdexcept>

namespace tarn::bench {
namespace {

std::vector<std::string> command(const maker& from, const std::vector<std::string>& words) {
    std::vector<std::string> all = from.start;
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

} // namespace

contest::contest(const options& chosen, const scenario& load, const maker& measured,
                 const maker& plain, const std::string& preload)
    : chosen_(chosen)
    , load_(load)
    , object_(measured.object)
    , service_(command(load.measured == role::calling && measured.on_ubus ? plain : measured,
                       {"serve", object_}),
               preload)
    , caller_(
          command(load.measured == role::serving && measured.on_ubus ? plain : measured, {"call"}),
          preload) {
    if (load.measured != role::serving) {
        measured_.push_back(&caller_);
    }
    if (load.measured != role::calling) {
        measured_.push_back(&service_);
    }
    service_.receive("ready");
    caller_.receive("ready");
    if (load.pending != 0) {
        leave_pending();
    }
}

sample contest::measure() {
    make(load_.first_calls(chosen_));
    const unsigned long calls = load_.calls(chosen_);
    const counts before = used();
    const double seconds = make(calls);
    const counts after = used();
    const auto made = static_cast<double>(calls);
    return {made / seconds, (after.cpu_ns - before.cpu_ns) / made / 1e3,
            (after.sleeps - before.sleeps) / made, (after.switches - before.switches) / made,
            after.allocations < 0 ? -1 : (after.allocations - before.allocations) / made};
}

contest::counts contest::used() {
    counts sum;
    for (worker* const each : measured_) {
        counts got;
        std::istringstream words(each->ask("usage", "usage "));
        if (!(words >> got.cpu_ns >> got.sleeps >> got.switches >> got.allocations)) {
            throw std::runtime_error("a measured program does not tell what it has used");
        }
        sum.cpu_ns += got.cpu_ns;
        sum.sleeps += got.sleeps;
        sum.switches += got.switches;
        sum.allocations += got.allocations;
    }
    return sum;
}

/// Returns how long the calls took, in seconds.
double contest::make(unsigned long calls) {
    std::ostringstream command;
    command << "call " << object_ << ' ' << calls << ' ' << load_.window << ' '
            << load_.look_up_each;
    unsigned long answered = 0;
    double nanoseconds = 0;
    std::istringstream words(caller_.ask(command.str(), "done "));
    words >> answered >> nanoseconds;
    if (!words || answered != calls) {
        throw std::runtime_error(load_.name() + ": of " + std::to_string(calls) +
                                 " calls were answered " + std::to_string(answered));
    }
    return nanoseconds / 1e9;
}

void contest::leave_pending() {
    const std::string wanted = std::to_string(load_.pending);
    caller_.ask("pend " + object_ + ' ' + wanted, "pending");
    // The service has seen those calls that are really under way.
    const std::string seen = service_.ask("unanswered", "unanswered ");
    if (seen != wanted) {
        throw std::runtime_error(load_.name() + ": of the calls to stay pending, the service saw " +
                                 seen);
    }
}

} // namespace tarn::bench
