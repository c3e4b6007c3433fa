/// The test kit's manual_loop, as the loop that the client's suites are written to.
#pragma once

#include "support/test_loop.h"
#include "tarn/testing/manual_loop.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace tarn::test {

class hand_loop : public test_loop {
public:
    void post(const std::function<void()>& task) override { loop_.post(task); }
    std::shared_ptr<timer> create_timer() override { return loop_.create_timer(); }

    /// Exactly one.
    bool run_one() override { return loop_.run_one(); }
    std::size_t drain() override { return loop_.drain(); }
    bool wait_for_task(std::chrono::milliseconds limit) override {
        return loop_.wait_for_task(limit);
    }
    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) override {
        return loop_.run_until(done, limit);
    }
    /// Runs no tasks.
    std::size_t advance(std::chrono::seconds by) override { return loop_.advance(by); }
    std::vector<std::chrono::seconds> armed_timers() const override { return loop_.armed_timers(); }
    std::size_t post_count() const override { return loop_.post_count(); }
    std::size_t timers_made() const override { return loop_.timers_made(); }
    std::size_t timers_alive() const override { return loop_.timers_alive(); }

    /// The clock, zero at first.
    std::chrono::seconds now() const { return loop_.now(); }

    /// Tasks posted and not yet run.
    std::size_t waiting_tasks() const { return loop_.waiting_tasks(); }

private:
    testing::manual_loop loop_;
};

} // namespace tarn::test
