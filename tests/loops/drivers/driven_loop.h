/// A test loop on top of a loop of another library, so that the client's suites run over it.
#pragma once

#include "support/hand_loop.h"
#include "support/test_loop.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace tarn::test {

/// Tasks go through the loop of `Driver`. So do timers, once they are due; when that is decides a
/// clock that the test moves. The threads are those of test_loop. Timers must not be used any more
/// when the loop is gone.
template <class Driver>
class driven_loop final : public test_loop {
public:
    void post(const std::function<void()>& task) override {
        {
            const std::lock_guard<std::mutex> lock(counts_->mutex);
            ++counts_->posts;
            ++counts_->waiting;
        }
        counts_->posted.notify_all();
        driver_.loop().post([counts = counts_, task] {
            {
                const std::lock_guard<std::mutex> lock(counts->mutex);
                --counts->waiting;
                ++counts->begun;
            }
            task();
        });
    }

    std::shared_ptr<timer> create_timer() override { return std::make_shared<driven_timer>(*this); }

    bool run_one() override {
        const std::size_t before = begun();
        return waiting() != 0 && run_until([&] { return begun() != before; }, limit);
    }

    std::size_t drain() override {
        const std::size_t before = begun();
        run_until([this] { return waiting() == 0; }, limit);
        return begun() - before;
    }

    bool wait_for_task(std::chrono::milliseconds at_most) override {
        std::unique_lock<std::mutex> lock(counts_->mutex);
        return counts_->posted.wait_for(lock, at_most, [this] { return counts_->waiting != 0; });
    }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds at_most) override {
        return driver_.run_until(done, at_most);
    }

    std::size_t advance(std::chrono::seconds by) override { return clock_.advance(by); }

    std::vector<std::chrono::seconds> armed_timers() const override {
        return clock_.armed_timers();
    }
    std::size_t post_count() const override {
        const std::lock_guard<std::mutex> lock(counts_->mutex);
        return counts_->posts;
    }
    std::size_t timers_made() const override { return clock_.timers_made(); }
    std::size_t timers_alive() const override { return clock_.timers_alive(); }

private:
    // Reached only when a test fails.
    static constexpr std::chrono::seconds limit{30};

    // Shared with the tasks.
    struct counts {
        mutable std::mutex mutex;
        std::condition_variable posted;
        std::size_t posts = 0;
        std::size_t waiting = 0;
        std::size_t begun = 0;
    };

    /// A timer of the clock, whose expiry arms a timer of the loop below and waits until that has
    /// run the handler, or is not to run it any more.
    class driven_timer final : public utils::event_loop::timer {
    public:
        explicit driven_timer(driven_loop& loop)
            : clock_timer_(loop.clock_.create_timer())
            , timer_(loop.driver_.loop().create_timer()) {
            clock_timer_->set_handler(
                [this_loop = &loop, due = due_, below = std::weak_ptr<timer>(timer_)] {
                    const auto alive = below.lock();
                    if (!alive) {
                        return;
                    }
                    *due = true;
                    alive->set_timeout(std::chrono::seconds(0));
                    this_loop->run_until([&due] { return !*due; }, limit);
                });
        }

        ~driven_timer() override { *due_ = false; }

        driven_timer(const driven_timer&) = delete;
        driven_timer& operator=(const driven_timer&) = delete;

        void set_handler(std::function<void()> action) override {
            timer_->set_handler([due = due_, action = std::move(action)] {
                *due = false;
                action();
            });
        }

        void set_timeout(const std::chrono::seconds& delay) override {
            timer_->stop();
            *due_ = false;
            clock_timer_->set_timeout(delay);
        }

        void stop() override {
            clock_timer_->stop();
            timer_->stop();
            *due_ = false;
        }

    private:
        const std::shared_ptr<std::atomic<bool>> due_ = std::make_shared<std::atomic<bool>>(false);
        const std::shared_ptr<timer> clock_timer_;
        const std::shared_ptr<timer> timer_;
    };

    std::size_t waiting() const {
        const std::lock_guard<std::mutex> lock(counts_->mutex);
        return counts_->waiting;
    }
    std::size_t begun() const {
        const std::lock_guard<std::mutex> lock(counts_->mutex);
        return counts_->begun;
    }

    const std::shared_ptr<counts> counts_ = std::make_shared<counts>();
    hand_loop clock_;
    Driver driver_;
};

} // namespace tarn::test
