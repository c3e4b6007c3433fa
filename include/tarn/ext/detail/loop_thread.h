/// Which thread the application's event loop runs on, as far as it can be learned.
#pragma once

#include "tarn/client.h"
#include "tarn/event_loop.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tarn::ext::detail {

/// The thread of one loop. The interface of a loop does not name it, so it is learned by a task
/// posted to the loop and by the handlers that tarn::ext runs there. Until the first of them has
/// run it is unknown. Thread: any.
class loop_thread {
public:
    /// That of the loop of `bus`, the same object for all who ask, and sees to it that the thread
    /// becomes known. Null when the client names no loop.
    static std::shared_ptr<loop_thread> of(const client& bus) {
        const std::shared_ptr<utils::event_loop> loop = bus.get_event_loop().lock();
        if (!loop) {
            return nullptr;
        }
        std::shared_ptr<loop_thread> thread = find(loop);
        if (!thread->asked_.exchange(true)) {
            try {
                loop->post([thread] { thread->note(); });
            } catch (...) {
                thread->asked_ = false; // the next one asks again
            }
        }
        return thread;
    }

    /// Says that the loop runs on the calling thread.
    void note() { id_ = std::this_thread::get_id(); }

    /// Whether the calling thread is known to be the loop's.
    bool is_this_one() const { return id_ == std::this_thread::get_id(); }

private:
    struct entry {
        std::weak_ptr<utils::event_loop> loop;
        std::shared_ptr<loop_thread> thread;
    };
    struct registry {
        std::mutex lock;
        std::vector<entry> entries;
    };

    static std::shared_ptr<loop_thread> find(const std::shared_ptr<utils::event_loop>& loop) {
        // Never destroyed: threads may still make calls while the process ends.
        static registry& known = *new registry;
        const std::lock_guard<std::mutex> guard(known.lock);
        auto& entries = known.entries;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [](const entry& one) { return one.loop.expired(); }),
                      entries.end());
        for (const entry& one : entries) {
            if (one.loop.lock() == loop) {
                return one.thread;
            }
        }
        entries.push_back({loop, std::make_shared<loop_thread>()});
        return entries.back().thread;
    }

    std::atomic<std::thread::id> id_{std::thread::id()};
    std::atomic<bool> asked_{false};
};

} // namespace tarn::ext::detail
