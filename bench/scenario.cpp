/// What the rows about calls over the bus are.
#include "scenario.h"

#include <algorithm>

namespace tarn::bench {
namespace {

const std::vector<scenario> beside_plain{
    {role::calling, 1},    {role::calling, 16},         {role::calling, 128},
    {role::calling, 1024}, {role::calling, 10000},      {role::calling, 1, true, 10000},
    {role::serving, 1},    {role::serving, 16},         {role::serving, 128},
    {role::serving, 1024}, {role::serving, 128, false},
};

const std::vector<scenario> beside_peers{
    {role::calling, 1}, {role::calling, 16}, {role::calling, 128}, {role::calling, 1024},
    {role::both, 1},    {role::both, 16},    {role::both, 128},    {role::both, 1024},
};

std::string role_name(role measured) {
    switch (measured) {
    case role::calling:
        return "call, ";
    case role::serving:
        return "serve, ";
    case role::both:
        break;
    }
    return "both ends, ";
}

} // namespace

std::string scenario::name() const {
    return role_name(measured) +
           (window == 1 ? "one at a time" : std::to_string(window) + " in flight") +
           (look_up_each ? "" : ", one look-up in all") +
           (pending == 0 ? "" : ", " + std::to_string(pending) + " pending");
}

unsigned long scenario::calls(const options& chosen) const {
    if (chosen.quick) {
        return window == 1 ? 50 : std::max(window, std::min(2 * window, 1000UL));
    }
    return window == 1 ? 3000 : std::max(10000UL, 2 * window);
}

unsigned long scenario::first_calls(const options& chosen) const {
    return chosen.quick ? calls(chosen) / 10 + 1 : std::max(calls(chosen) / 10 + 1, window);
}

std::vector<scenario> scenarios(const options& chosen) {
    std::vector<scenario> wanted;
    for (const scenario& each : chosen.peers ? beside_peers : beside_plain) {
        if (each.name().find(chosen.only) != std::string::npos) {
            wanted.push_back(each);
        }
    }
    return wanted;
}

} // namespace tarn::bench
