/// Something that happens once, and that another thread waits for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tarn {

class milestone {
public:
    /// It has happened. Called once.
    void reach();
    /// Waits until it has happened.
    void await();
    /// The same for at most so long. False when it has not happened by then.
    bool await_for(std::chrono::seconds limit);

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool reached_ = false;
};

} // namespace tarn
