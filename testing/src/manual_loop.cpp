/// The event loop that a test drives.
#include "tarn/testing/manual_loop.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <utility>

namespace tarn::testing {

namespace {

constexpr std::chrono::seconds never = std::chrono::seconds::max();

// `now` is not negative.
std::chrono::seconds saturating_add(std::chrono::seconds now, std::chrono::seconds delay) {
    if (delay <= std::chrono::seconds::zero()) {
        return now;
    }
    return delay > never - now ? never : now + delay;
}

} // namespace

struct manual_loop::state {
    struct entry {
        std::shared_ptr<const std::function<void()>> handler;
        std::chrono::seconds armed_at{0};
        std::chrono::seconds deadline{0};
        // Never 0 once armed, so that the key of an idle entry is never that of an armed one.
        std::uint64_t order = 0;
        bool missed = false;
    };

    struct earlier {
        bool operator()(const entry* left, const entry* right) const {
            return std::make_pair(left->deadline, left->order) <
                   std::make_pair(right->deadline, right->order);
        }
    };

    using task_list = std::list<std::function<void()>>;

    // Guards everything here. Tasks and handlers are copied, run and destroyed outside it.
    mutable std::mutex mutex;
    std::condition_variable posted;
    task_list tasks;
    std::set<entry*, earlier> armed;
    std::chrono::seconds now{0};
    std::uint64_t next_order = 1;
    std::size_t posts = 0;
    std::size_t made = 0;
    std::size_t alive = 0;
    bool closed = false;

    void insert(entry& timer, std::chrono::seconds delay) {
        armed.erase(&timer);
        timer.missed = false;
        timer.armed_at = now;
        timer.deadline = saturating_add(now, delay);
        timer.order = next_order++;
        armed.insert(&timer);
    }

    std::shared_ptr<const std::function<void()>> take_due(std::chrono::seconds target,
                                                          std::uint64_t first_new) {
        const std::lock_guard<std::mutex> lock(mutex);
        auto position = armed.begin();
        while (position != armed.end()) {
            entry& timer = **position;
            if (timer.deadline > target || timer.deadline == never) {
                break;
            }
            if (timer.order >= first_new && timer.deadline <= timer.armed_at) {
                ++position;
                continue;
            }
            now = std::max(now, timer.deadline);
            position = armed.erase(position);
            if (timer.handler) {
                return timer.handler;
            }
            timer.missed = true;
        }
        return nullptr;
    }
};

class manual_loop::manual_timer final : public utils::event_loop::timer {
public:
    explicit manual_timer(std::shared_ptr<state> loop)
        : loop_(std::move(loop)) {
        const std::lock_guard<std::mutex> lock(loop_->mutex);
        ++loop_->made;
        ++loop_->alive;
    }

    ~manual_timer() override {
        const std::lock_guard<std::mutex> lock(loop_->mutex);
        loop_->armed.erase(&entry_);
        --loop_->alive;
    }

    manual_timer(const manual_timer&) = delete;
    manual_timer& operator=(const manual_timer&) = delete;

    void set_handler(std::function<void()> action) override {
        std::shared_ptr<const std::function<void()>> handler;
        if (action) {
            handler = std::make_shared<const std::function<void()>>(std::move(action));
        }
        const std::lock_guard<std::mutex> lock(loop_->mutex);
        if (loop_->closed) {
            return;
        }
        entry_.handler.swap(handler);
        if (entry_.missed && entry_.handler) {
            loop_->insert(entry_, std::chrono::seconds::zero());
        }
    }

    void set_timeout(const std::chrono::seconds& delay) override {
        const std::lock_guard<std::mutex> lock(loop_->mutex);
        if (!loop_->closed) {
            loop_->insert(entry_, delay);
        }
    }

    void stop() override {
        const std::lock_guard<std::mutex> lock(loop_->mutex);
        loop_->armed.erase(&entry_);
        entry_.missed = false;
    }

private:
    const std::shared_ptr<state> loop_;
    state::entry entry_;
};

manual_loop::manual_loop()
    : state_(std::make_shared<state>()) {}

manual_loop::~manual_loop() {
    state::task_list dropped;
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->tasks);
    state_->armed.clear();
}

void manual_loop::post(const std::function<void()>& task) {
    state::task_list node;
    node.push_back(task);
    const std::lock_guard<std::mutex> lock(state_->mutex);
    ++state_->posts;
    if (!state_->closed) {
        state_->tasks.splice(state_->tasks.end(), node);
        state_->posted.notify_all();
    }
}

std::shared_ptr<utils::event_loop::timer> manual_loop::create_timer() {
    return std::make_shared<manual_timer>(state_);
}

bool manual_loop::run_one() {
    state::task_list current;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->tasks.empty()) {
            return false;
        }
        current.splice(current.begin(), state_->tasks, state_->tasks.begin());
    }
    current.front()();
    return true;
}

std::size_t manual_loop::drain() {
    std::size_t count = 0;
    while (run_one()) {
        ++count;
    }
    return count;
}

bool manual_loop::wait_for_task(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->posted.wait_for(lock, limit, [this] { return !state_->tasks.empty(); });
}

bool manual_loop::run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    using clock = std::chrono::steady_clock;
    // `done` may also come true without a task: look again this often.
    constexpr std::chrono::milliseconds look_again(20);
    const auto end = clock::now() + limit;
    while (!done()) {
        if (clock::now() >= end) {
            return false;
        }
        if (!run_one()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now());
            wait_for_task(std::min(left, look_again));
        }
    }
    return true;
}

std::size_t manual_loop::advance(std::chrono::seconds by) {
    std::chrono::seconds target{};
    std::uint64_t first_new = 0;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        target = saturating_add(state_->now, by);
        first_new = state_->next_order;
    }
    std::size_t count = 0;
    while (const auto handler = state_->take_due(target, first_new)) {
        ++count;
        (*handler)();
    }
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->now = std::max(state_->now, target);
    return count;
}

std::chrono::seconds manual_loop::now() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->now;
}

std::vector<std::chrono::seconds> manual_loop::armed_timers() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    std::vector<std::chrono::seconds> left;
    for (const state::entry* next : state_->armed) {
        left.push_back(next->deadline - state_->now);
    }
    return left;
}

std::size_t manual_loop::waiting_tasks() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->tasks.size();
}

std::size_t manual_loop::post_count() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->posts;
}

std::size_t manual_loop::timers_made() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->made;
}

std::size_t manual_loop::timers_alive() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->alive;
}

} // namespace tarn::testing
