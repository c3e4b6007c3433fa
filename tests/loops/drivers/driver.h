/// What the drivers of the adapters share: each owns a loop of another library and an adapter on
/// it, and runs the loop as the conformance suite and driven_loop ask.
#pragma once

#include "tarn/event_loop.h"

#include <chrono>
#include <functional>
#include <memory>

namespace tarn::test {

/// How often a driver looks whether it is done while nothing happens.
constexpr std::chrono::milliseconds pulse(2);

/// `Adapter` is destroyed by drop_loop(), or by the driver's destructor before it destroys the loop
/// below.
template <class Adapter>
class driver {
public:
    utils::event_loop& loop() { return *adapter_; }
    void drop_loop() { adapter_.reset(); }
    static std::chrono::nanoseconds now() {
        return std::chrono::steady_clock::now().time_since_epoch();
    }

protected:
    driver() = default;
    ~driver() = default;
    driver(const driver&) = delete;
    driver& operator=(const driver&) = delete;

    /// Gives the loop below turns with `step`, which lasts a pulse at most, until `done()`.
    template <class Step>
    static bool step_until(const std::function<bool()>& done, std::chrono::milliseconds limit,
                           const Step& step) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            step();
        }
        return true;
    }

    std::unique_ptr<Adapter> adapter_;
};

} // namespace tarn::test
