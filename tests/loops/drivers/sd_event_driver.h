/// Drives the adapter for sd_event.
#pragma once

#include "tarn/loops/sd_event_loop.h"

#include "loops/drivers/driver.h"

#include <gtest/gtest.h>

namespace tarn::test {

class loop_driver : public driver<loops::sd_event_loop> {
public:
    loop_driver() {
        EXPECT_GE(sd_event_new(&event_), 0);
        make_loop();
    }

    ~loop_driver() {
        drop_loop();
        sd_event_unref(event_);
    }

    /// In place of the adapter that there is.
    void make_loop() {
        drop_loop();
        adapter_ = std::make_unique<loops::sd_event_loop>(event_);
    }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        return step_until(done, limit, [this] {
            sd_event_run(event_,
                         static_cast<std::uint64_t>(std::chrono::microseconds(pulse).count()));
        });
    }

private:
    sd_event* event_ = nullptr;
};

} // namespace tarn::test
