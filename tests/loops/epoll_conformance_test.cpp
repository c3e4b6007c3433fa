/// Runs the conformance suite on epoll_loop, driven in both ways that it offers.
#include "tarn/loops/conformance.h"

#include "tarn/loops/epoll_loop.h"

#include <poll.h>

#include <condition_variable>
#include <mutex>

namespace {

using tarn::loops::epoll_loop;

class epoll_driver {
public:
    tarn::utils::event_loop& loop() { return *loop_; }
    void drop_loop() { loop_.reset(); }
    static std::chrono::nanoseconds now() {
        return std::chrono::steady_clock::now().time_since_epoch();
    }

protected:
    ~epoll_driver() = default;

    std::unique_ptr<epoll_loop> loop_ = std::make_unique<epoll_loop>();
};

/// Inside run(): a helper thread posts a look at `done` every few milliseconds.
class running_driver : public epoll_driver {
public:
    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        const looker helper(
            [this, &done, end] {
                if (done() || std::chrono::steady_clock::now() >= end) {
                    loop_->stop();
                }
            },
            *loop_);
        loop_->run();
        return done();
    }

private:
    class looker {
    public:
        looker(std::function<void()> look, epoll_loop& loop)
            : look_(std::make_shared<std::function<void()>>(std::move(look)))
            , thread_([this, &loop] {
                std::unique_lock<std::mutex> lock(mutex_);
                do {
                    // Held weakly: a look that is left over from a run that threw does nothing.
                    loop.post([look = std::weak_ptr<std::function<void()>>(look_)] {
                        if (const auto still = look.lock()) {
                            (*still)();
                        }
                    });
                } while (
                    !over_.wait_for(lock, std::chrono::milliseconds(2), [this] { return ended_; }));
            }) {}

        ~looker() {
            {
                const std::lock_guard<std::mutex> lock(mutex_);
                ended_ = true;
            }
            over_.notify_one();
            thread_.join();
        }

        looker(const looker&) = delete;
        looker& operator=(const looker&) = delete;

    private:
        const std::shared_ptr<std::function<void()>> look_;
        std::mutex mutex_;
        std::condition_variable over_;
        bool ended_ = false;
        std::thread thread_;
    };
};

/// Nested: dispatch() whenever another loop, here poll(), finds the descriptor readable.
class nested_driver : public epoll_driver {
public:
    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            pollfd source{loop_->fd(), POLLIN, 0};
            if (::poll(&source, 1, 5) > 0) {
                loop_->dispatch();
            }
        }
        return true;
    }
};

TARN_EVENT_LOOP_CONFORMANCE(EpollRun, running_driver);
TARN_EVENT_LOOP_EXCEPTION_CONFORMANCE(EpollRun, running_driver);
TARN_EVENT_LOOP_CONFORMANCE(EpollNested, nested_driver);
TARN_EVENT_LOOP_EXCEPTION_CONFORMANCE(EpollNested, nested_driver);

} // namespace
