/// Drives the adapter for libuv.
#pragma once

#include "tarn/loops/uv_loop.h"

#include "loops/drivers/driver.h"

#include <gtest/gtest.h>

namespace tarn::test {

class loop_driver : public driver<loops::uv_loop> {
public:
    loop_driver() {
        EXPECT_EQ(uv_loop_init(&loop_), 0);
        EXPECT_EQ(uv_timer_init(&loop_, &alarm_), 0);
        make_loop();
    }

    ~loop_driver() {
        drop_loop();
        uv_close(reinterpret_cast<uv_handle_t*>(&alarm_), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop_), 0) << "a handle was left open";
    }

    /// In place of the adapter that there is.
    void make_loop() {
        drop_loop();
        adapter_ = std::make_unique<loops::uv_loop>(&loop_);
    }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        const auto every = static_cast<std::uint64_t>(pulse.count());
        uv_timer_start(
            &alarm_, [](uv_timer_t*) {}, every, every);
        const bool reached = step_until(done, limit, [this] { uv_run(&loop_, UV_RUN_ONCE); });
        uv_timer_stop(&alarm_);
        return reached;
    }

private:
    uv_loop_t loop_{};
    uv_timer_t alarm_{};
};

} // namespace tarn::test
