/// The application's event loop of the model: one thread, a clock that runs fast, a delay now and
/// then at every hand-over, and no harm from what a task throws.
#pragma once

#include "tarn/event_loop.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace tarn::test {

/// What handlers of the model throw. The loop catches it and goes on.
struct thrown_by_handler : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Runs from construction until stop(), on a thread of its own.
class fast_loop final : public utils::event_loop {
public:
    /// How long a second of its clock takes.
    static constexpr std::chrono::milliseconds second{2};

    /// `on_unexpected` is told about every other exception that leaves a task or a timer's handler.
    explicit fast_loop(std::function<void(const std::string&)> on_unexpected);
    ~fast_loop() override;
    fast_loop(const fast_loop&) = delete;
    fast_loop& operator=(const fast_loop&) = delete;

    void post(const std::function<void()>& task) override;
    std::shared_ptr<timer> create_timer() override;

    bool on_its_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

    /// Waits until `done()` is true, which is asked whenever the loop has done something, and every
    /// millisecond. False when it does not become true within the limit.
    bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit);

    /// Runs what is queued, and ends the thread.
    void stop();

private:
    using clock = std::chrono::steady_clock;
    struct state;
    class fast_timer;

    void run();
    void guarded(const std::function<void()>& work);

    const std::function<void(const std::string&)> on_unexpected_;
    const std::shared_ptr<state> state_; ///< shared with the timers, which may outlive the loop
    std::thread thread_;
};

} // namespace tarn::test
