/// The application's event loop of the model.
#include "fast_loop.h"

#include "delays.h"
#include "journal.h"

#include <algorithm>
#include <utility>

namespace tarn::test {

struct fast_loop::state {
    std::mutex lock; ///< guards everything here
    std::condition_variable work;
    std::condition_variable progress;
    std::list<std::function<void()>> tasks;
    std::multimap<clock::time_point, fast_timer*> armed;
    unsigned long turns = 0; ///< that the loop has done something
    bool ending = false;
};

class fast_loop::fast_timer final : public timer {
public:
    explicit fast_timer(std::shared_ptr<state> loop)
        : loop_(std::move(loop)) {}

    ~fast_timer() override {
        const std::lock_guard<std::mutex> guard(loop_->lock);
        disarm();
    }

    void set_handler(std::function<void()> action) override {
        // Destroyed outside the lock.
        auto handler = std::make_shared<const std::function<void()>>(std::move(action));
        const std::lock_guard<std::mutex> guard(loop_->lock);
        handler_.swap(handler);
        if (overdue_) {
            arm(clock::now());
        }
    }

    void set_timeout(const std::chrono::seconds& delay) override {
        // Further away than any sequence lasts; and it must not wrap around.
        constexpr std::chrono::seconds far{100000};
        const std::lock_guard<std::mutex> guard(loop_->lock);
        arm(clock::now() + second * std::max<long long>(0, std::min(delay, far).count()));
    }

    void stop() override {
        const std::lock_guard<std::mutex> guard(loop_->lock);
        disarm();
    }

    /// What to run now that it has expired; empty if it has no handler yet. With the lock held.
    std::shared_ptr<const std::function<void()>> expire() {
        disarm();
        overdue_ = handler_ == nullptr;
        return handler_;
    }

private:
    void arm(clock::time_point due) {
        disarm();
        loop_->armed.emplace(due, this);
        loop_->work.notify_one();
    }

    void disarm() {
        overdue_ = false;
        for (auto entry = loop_->armed.begin(); entry != loop_->armed.end(); ++entry) {
            if (entry->second == this) {
                loop_->armed.erase(entry);
                return;
            }
        }
    }

    const std::shared_ptr<state> loop_;
    std::shared_ptr<const std::function<void()>> handler_;
    bool overdue_ = false; ///< it expired before it had a handler
};

fast_loop::fast_loop(std::function<void(const std::string&)> on_unexpected)
    : on_unexpected_(std::move(on_unexpected))
    , state_(std::make_shared<state>())
    , thread_([this] { run(); }) {}

fast_loop::~fast_loop() {
    stop();
}

void fast_loop::stop() {
    {
        const std::lock_guard<std::mutex> guard(state_->lock);
        state_->ending = true;
        state_->work.notify_one();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void fast_loop::post(const std::function<void()>& task) {
    {
        const std::lock_guard<std::mutex> guard(state_->lock);
        state_->tasks.push_back(task);
        state_->work.notify_one();
    }
    maybe_delay();
}

std::shared_ptr<fast_loop::timer> fast_loop::create_timer() {
    return std::make_shared<fast_timer>(state_);
}

bool fast_loop::wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = clock::now() + limit;
    for (;;) {
        std::unique_lock<std::mutex> guard(state_->lock);
        const unsigned long seen = state_->turns;
        guard.unlock();
        if (done()) {
            return true;
        }
        if (clock::now() >= end) {
            return false;
        }
        guard.lock();
        state_->progress.wait_for(guard, std::chrono::milliseconds(1),
                                  [&] { return state_->turns != seen; });
    }
}

void fast_loop::guarded(const std::function<void()>& work) {
    try {
        work();
    } catch (const thrown_by_handler&) {
        journal::note("the loop goes on");
    } catch (const std::exception& e) {
        on_unexpected_(std::string("the loop's task threw: ") + e.what());
    }
}

void fast_loop::run() {
    journal::name_thread("loop");
    number_thread(1);
    std::unique_lock<std::mutex> guard(state_->lock);
    for (bool timers_turn = false;; timers_turn = !timers_turn) {
        const bool due = !state_->armed.empty() && state_->armed.begin()->first <= clock::now();
        if (due && (timers_turn || state_->tasks.empty())) {
            const auto action = state_->armed.begin()->second->expire();
            guard.unlock();
            maybe_delay();
            if (action && *action) {
                guarded(*action);
            }
        } else if (!state_->tasks.empty()) {
            std::list<std::function<void()>> task;
            task.splice(task.begin(), state_->tasks, state_->tasks.begin());
            guard.unlock();
            maybe_delay();
            guarded(task.front());
        } else if (state_->ending) {
            return;
        } else if (state_->armed.empty()) {
            state_->work.wait(guard);
            continue;
        } else {
            state_->work.wait_until(guard, clock::time_point(state_->armed.begin()->first));
            continue;
        }
        guard.lock();
        ++state_->turns;
        state_->progress.notify_all();
    }
}

} // namespace tarn::test
