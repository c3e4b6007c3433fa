/// Watching objects without owning them.
#include "tarn/misc/shared_ptr_tracker.h"

#include <algorithm>

namespace tarn::misc {

// No other data is published through the latch, so its accesses need no ordering.

shared_ptr_tracker::shared_ptr_tracker(const shared_ptr_tracker& other)
    : expired_(other.expired_.load(std::memory_order_relaxed))
    , ptrs_(other.ptrs_) {}

shared_ptr_tracker& shared_ptr_tracker::operator=(const shared_ptr_tracker& other) {
    ptrs_ = other.ptrs_;
    expired_.store(other.expired_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return *this;
}

bool shared_ptr_tracker::expired() const {
    if (expired_.load(std::memory_order_relaxed)) {
        return true;
    }
    const bool gone = std::any_of(ptrs_.begin(), ptrs_.end(),
                                  [](const std::weak_ptr<void>& p) { return p.expired(); });
    if (gone) {
        expired_.store(true, std::memory_order_relaxed);
    }
    return gone;
}

} // namespace tarn::misc
