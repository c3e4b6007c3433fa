/// Waiting for what happens once.
#include "client/milestone.h"

namespace tarn {

void milestone::reach() {
    // Notified with the lock held: who waits may destroy this object once it has the lock.
    const std::lock_guard<std::mutex> guard(lock_);
    reached_ = true;
    changed_.notify_all();
}

void milestone::await() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return reached_; });
}

bool milestone::await_for(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [this] { return reached_; });
}

} // namespace tarn
