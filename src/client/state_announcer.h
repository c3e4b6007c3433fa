/// Reports each state of the connection to the subscribers, in the order of the changes.
#pragma once

#include "tarn/client.h"

#include <array>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>

namespace tarn {

/// The states that have been entered and not been reported yet.
///
/// Each is reported by the thread that has changed the state, before its operation goes on; a
/// change made by a subscriber is reported inside that subscriber's call. Where two threads change
/// the state at the same time the one that is already reporting reports the other's change as well,
/// after its own: no thread waits for a subscriber, and no subscriber is notified out of order.
class state_announcer {
public:
    explicit state_announcer(std::mutex& lock)
        : lock_(lock) {}

    /// Notes a change. With the lock held. When subscribers hold up more changes than there is room
    /// for, the last but one is dropped.
    void note(client::state s) noexcept {
        if (count_ < waiting_.size()) {
            ++count_;
        }
        waiting_[(first_ + count_ - 1) % waiting_.size()] = s;
    }

    /// Whether changes have been noted and not been reported. With the lock held.
    bool is_behind() const noexcept { return count_ != 0; }

    /// Calls `tell` with everything noted, without the lock. Rethrows the first exception when all
    /// is reported.
    template <class Tell>
    void announce(const Tell& tell) {
        std::unique_lock<std::mutex> guard(lock_);
        if (count_ == 0 || (depth_ != 0 && teller_ != std::this_thread::get_id())) {
            return;
        }
        teller_ = std::this_thread::get_id();
        ++depth_;
        std::exception_ptr thrown;
        while (count_ != 0) {
            const client::state s = waiting_[first_];
            first_ = (first_ + 1) % waiting_.size();
            --count_;
            guard.unlock();
            try {
                tell(s);
            } catch (...) {
                thrown = thrown ? thrown : std::current_exception();
            }
            guard.lock();
        }
        --depth_;
        guard.unlock();
        if (thrown) {
            std::rethrow_exception(thrown);
        }
    }

private:
    std::mutex& lock_; ///< the application's side's; guards all the rest
    std::array<client::state, 32> waiting_{};
    std::size_t first_ = 0;
    std::size_t count_ = 0;
    int depth_ = 0;          ///< calls of announce() that are reporting, one inside the other
    std::thread::id teller_; ///< the thread that makes them
};

} // namespace tarn
