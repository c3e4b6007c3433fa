/// The application of this example: keeps a room warm. "sensor" measures, "heater" heats.
#pragma once

#include <tarn/tarn.h>

/// Given a client instead of asking for the process's, so that a test can hand in one of its own.
class thermostat {
public:
    explicit thermostat(tarn::client& bus)
        : bus_(bus) {}

    /// Below this the heater is switched on, from the next check() on.
    void set_wanted(double celsius) { wanted_ = celsius; }
    /// The sensor or the heater has not done what it was asked for.
    bool is_failing() const { return failing_; }

    /// Measures once, and switches the heater.
    void check() {
        measuring_ = bus_.invoke(
            "sensor", "read", {},
            [this](const std::list<tarn::blob::attr>& replies, const std::error_code& failed) {
                failing_ = failed || replies.empty();
                if (!failing_) {
                    const auto& fields = replies.front().get<tarn::blob::table>();
                    const auto measured = fields.find("celsius");
                    failing_ =
                        measured == fields.end() || measured->second.type() != typeid(double);
                    heat(!failing_ && measured->second.get<double>() < wanted_);
                }
            },
            std::chrono::seconds(10));
    }

private:
    void heat(bool on) {
        switching_ = bus_.invoke(
            "heater", "switch", {{"on", on}},
            [this](const std::list<tarn::blob::attr>&, const std::error_code& failed) {
                failing_ = failing_ || failed;
            },
            std::chrono::seconds(10));
    }

    tarn::client& bus_;
    double wanted_ = 20;
    bool failing_ = false;
    tarn::utils::scoped_link measuring_;
    tarn::utils::scoped_link switching_;
};
