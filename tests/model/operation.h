/// The bookkeeping of one operation of a sequence: when it was called, what its handler was told,
/// who released its link, and whether anything still holds its handler.
#pragma once

#include "plan.h"

#include "tarn/link.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace tarn::test {

/// Moments are numbers that grow; 0 means never.
using moment = long;

struct model_operation {
    explicit model_operation(step s)
        : planned(std::move(s)) {}

    const step planned;
    std::string name;
    /// Whether it is a reply's, whose report the end of its connection may swallow.
    bool is_send = false;

    std::atomic<moment> began{0};
    std::atomic<moment> returned{0};
    std::atomic<moment> reported{0}; ///< first
    std::atomic<int> runs{0};        ///< of the handler
    std::atomic<int> calls{0};   ///< of the object's method handlers, or of the back-off function
    std::atomic<int> replies{0}; ///< told one by one
    std::atomic<int> alive{0};   ///< copies of its handlers
    /// Told its outcome by a cancel() that does not run on the loop: one reply may have begun
    /// there.
    std::atomic<bool> one_may_follow{false};
    std::atomic<int> registered{0}; ///< how often its registration was told
    std::atomic<int> messages{0};   ///< of a monitor
    std::atomic<bool> released{false};
    std::atomic<bool> release_returned{false};
    std::atomic<int> after_release{0}; ///< deliveries that have begun since
    std::atomic<int> delivering{0};
    std::atomic<bool> threw{false};          ///< the call itself, since a handler that it ran threw
    std::atomic<bool> in_cancel{false};      ///< called by a handler that cancel() called
    std::atomic<bool> in_outcome{false};     ///< called by a handler that was told of a state
    std::atomic<client::state> state_then{}; ///< when its handler began

    mutable std::mutex lock; ///< guards the ones below
    std::optional<utils::link> link;
    std::error_code code;               ///< the first that was reported
    std::optional<client::state> heard; ///< a subscriber's last state
    int hearing = 0;                    ///< its calls under way, one inside the other
    std::thread::id heard_on;           ///< the thread that makes them
    int attempt = 0;                    ///< what its back-off function was told last
    int successes = 0;                  ///< how many connections had been made then
    // What a standing operation has been told last, and a look-up has found.
    long event = 0;                             ///< the number of the other process's latest event
    std::map<std::uint32_t, std::string> there; ///< objects, by id
    bool subscribed = false;
    bool has_subscribers = false;
    /// The thread on which a release returned before its handler had begun.
    std::thread::id silenced_on;

    bool has_handler() const { return !planned.silent && planned.what != step::act::cancel; }

    /// Whether its handler is told one outcome.
    bool is_reported() const {
        return has_handler() && planned.what != step::act::auto_connect &&
               planned.what != step::act::subscribe && !planned.is_standing();
    }

    utils::link handle() {
        const std::lock_guard<std::mutex> guard(lock);
        return link.value_or(utils::link());
    }

    bool active() const {
        const std::lock_guard<std::mutex> guard(lock);
        return link && link->active();
    }

    bool has_link() {
        const std::lock_guard<std::mutex> guard(lock);
        return link.has_value();
    }

    std::error_code outcome() const {
        const std::lock_guard<std::mutex> guard(lock);
        return code;
    }
};

/// What a handler captures: it counts its copies.
class witness {
public:
    explicit witness(model_operation& op)
        : op_(&op) {
        ++op_->alive;
    }
    witness(const witness& other)
        : witness(*other.op_) {}
    witness& operator=(const witness&) = delete;
    ~witness() { --op_->alive; }

    model_operation& operator*() const { return *op_; }
    model_operation* operator->() const { return op_; }

private:
    model_operation* op_;
};

} // namespace tarn::test
