/// Tasks posted to a loop from other threads, and run there.
#include "micro.h"

#include "tarn/loops/epoll_loop.h"
#include "tarn/uloop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace tarn::bench {
namespace {

/// So many tasks each thread posts before it waits until they have run: what is measured includes
/// the running, and the queue stays short.
constexpr unsigned burst = 1000;

/// Starts all threads at once, and waits until the last task of each has run.
class rounds {
public:
    using post_function = std::function<void(const std::function<void()>&)>;

    rounds(unsigned threads, post_function post)
        : post_(std::move(post)) {
        for (unsigned i = 0; i < threads; ++i) {
            threads_.emplace_back([this] { work(); });
        }
    }

    ~rounds() {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            over_ = true;
        }
        changed_.notify_all();
        for (std::thread& each : threads_) {
            each.join();
        }
    }
    rounds(const rounds&) = delete;
    rounds& operator=(const rounds&) = delete;

    void one() {
        std::unique_lock<std::mutex> guard(lock_);
        unfinished_ = threads_.size();
        ++round_;
        changed_.notify_all();
        changed_.wait(guard, [this] { return unfinished_ == 0; });
    }

private:
    void work() {
        const std::function<void()> last([this] {
            const std::lock_guard<std::mutex> guard(lock_);
            if (--unfinished_ == 0) {
                changed_.notify_all();
            }
        });
        const std::function<void()> task([this] { ++run_; });
        unsigned long seen = 0;
        std::unique_lock<std::mutex> guard(lock_);
        for (;;) {
            changed_.wait(guard, [this, &seen] { return over_ || round_ != seen; });
            if (over_) {
                return;
            }
            seen = round_;
            guard.unlock();
            for (unsigned i = 1; i < burst; ++i) {
                post_(task);
            }
            post_(last);
            guard.lock();
        }
    }

    const post_function post_;
    std::mutex lock_;
    std::condition_variable changed_;
    unsigned long round_ = 0;
    std::size_t unfinished_ = 0;
    bool over_ = false;
    unsigned long run_ = 0; ///< of the loop's thread alone
    std::vector<std::thread> threads_;
};

void measure(benchmark::State& state, unsigned threads, const rounds::post_function& post) {
    rounds posting(threads, post);
    turns measured(state);
    for (auto turn : state) {
        posting.one();
    }
    measured.stop(static_cast<double>(threads) * burst);
}

void to_uloop(benchmark::State& state, unsigned threads) {
    auto& loop = uloop::get_instance();
    std::thread running([&loop] { loop.run(); });
    measure(state, threads, [&loop](const std::function<void()>& task) { loop.post(task); });
    // From the loop, since an exit() ahead of run() would be without effect.
    loop.post([&loop] { loop.exit(); });
    running.join();
}

void to_epoll_loop(benchmark::State& state, unsigned threads) {
    loops::epoll_loop loop;
    std::thread running([&loop] { loop.run(); });
    measure(state, threads, [&loop](const std::function<void()>& task) { loop.post(task); });
    loop.stop();
    running.join();
}

/// One task at a time to uloop, which posts the next to epoll_loop, and so on: the two changes of
/// thread that a call costs beside the bus traffic.
void there_and_back(benchmark::State& state) {
    auto& far = uloop::get_instance();
    loops::epoll_loop near;
    std::thread running([&far] { far.run(); });
    const std::function<void()> back([&near] { near.stop(); });
    const std::function<void()> there([&near, &back] { near.post(back); });
    turns measured(state);
    for (auto turn : state) {
        far.post(there);
        near.run();
    }
    measured.stop();
    far.post([&far] { far.exit(); });
    running.join();
}

/// The least that it can cost: two threads that wake each other, and do nothing else.
void there_and_back_bare(benchmark::State& state) {
    const int there = ::eventfd(0, EFD_CLOEXEC);
    const int back = ::eventfd(0, EFD_CLOEXEC);
    if (there < 0 || back < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    constexpr eventfd_t on = 1;
    constexpr eventfd_t over = 2;
    std::thread running([there, back] {
        for (eventfd_t word = 0; ::eventfd_read(there, &word) == 0 && word != over;) {
            ::eventfd_write(back, word);
        }
    });
    turns measured(state);
    for (auto turn : state) {
        eventfd_t word = 0;
        ::eventfd_write(there, on);
        ::eventfd_read(back, &word);
    }
    measured.stop();
    ::eventfd_write(there, over);
    running.join();
    ::close(there);
    ::close(back);
}

} // namespace

void register_posts() {
    benchmark::RegisterBenchmark("there and back/tarn", there_and_back)->UseRealTime();
    benchmark::RegisterBenchmark("there and back/plain", there_and_back_bare)->UseRealTime();
    for (const unsigned threads : {1U, 8U}) {
        const std::string from =
            ", " + std::to_string(threads) + (threads == 1 ? " thread" : " threads") + "/tarn";
        benchmark::RegisterBenchmark(("post to uloop" + from).c_str(), to_uloop, threads)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("post to epoll_loop" + from).c_str(), to_epoll_loop, threads)
            ->UseRealTime();
    }
}

} // namespace tarn::bench
