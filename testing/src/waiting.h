/// What the fakes keep of an operation until its outcome is reported.
#pragma once

#include "tarn/client.h"
#include "tarn/event_loop.h"
#include "tarn/link.h"

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>

namespace tarn::testing {

/// A handler that waits for the outcome of an operation, perhaps with a time limit, and its link.
class waiting : public utils::link::impl {
public:
    explicit waiting(client::completion_handler handler)
        : handler_(std::move(handler)) {}

    /// Keeps the timer until the outcome is reported.
    void limit_with(std::shared_ptr<utils::event_loop::timer> timer) {
        const std::lock_guard<std::mutex> guard(lock_);
        if (active_) {
            timer_.swap(timer);
        }
    }

    /// The handler, once: the caller that gets it calls or drops it.
    client::completion_handler take() {
        std::shared_ptr<utils::event_loop::timer> stopped; // destroyed outside the lock
        const std::lock_guard<std::mutex> guard(lock_);
        active_ = false;
        stopped.swap(timer_);
        return std::exchange(handler_, nullptr);
    }
    void tell(const std::error_code& code) {
        if (const auto handler = take()) {
            handler(code);
        }
    }

    void release() override { take(); }
    bool active() const override { return active_; }

private:
    std::mutex lock_;
    std::atomic<bool> active_{true};
    client::completion_handler handler_;
    std::shared_ptr<utils::event_loop::timer> timer_;
};

using waiting_list = std::list<std::shared_ptr<waiting>>;

} // namespace tarn::testing
