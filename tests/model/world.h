/// What lives through all sequences: the daemon, the other process, the way to the bus, the
/// application's loop with the process's client on it, and the threads.
#pragma once

#include "fast_loop.h"
#include "peer_process.h"
#include "proxy_bus.h"

#include "support/bus_daemon.h"
#include "tarn/client.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarn::test {

/// The first thing that was wrong. Any thread.
class verdict {
public:
    void fail(const std::string& what);
    bool failed() const { return failed_; }
    std::string text() const;
    void reset();

private:
    mutable std::mutex lock_;
    std::string text_;
    std::atomic<bool> failed_{false};
};

/// Threads that wait for work.
class crew {
public:
    static constexpr unsigned size = 4;

    crew();
    ~crew();
    crew(const crew&) = delete;
    crew& operator=(const crew&) = delete;

    /// Gives the thread something to do.
    void start(unsigned thread, std::function<void()> work);
    /// Whether all have done it within the limit.
    bool finished(std::chrono::milliseconds limit);

private:
    void run(unsigned thread);

    std::mutex lock_; ///< guards all but the threads
    std::condition_variable changed_;
    std::vector<std::function<void()>> work_{size};
    unsigned busy_ = 0;
    bool ending_ = false;
    std::vector<std::thread> threads_;
};

/// One per process, kept until its end.
class world {
public:
    world();
    ~world();
    world(const world&) = delete;
    world& operator=(const world&) = delete;

    client& bus() const { return bus_; }
    fast_loop& loop() const { return *loop_; }
    crew& threads() { return threads_; }
    /// For the test's thread.
    peer_process& peer() { return *peer_; }
    verdict& result() { return *result_; }

    /// Gives the other process an order, as peer_process::start(). Any thread.
    int order_peer(const std::string& verb, const std::string& objects);
    /// The number of the last event that it has sent. Any thread.
    long last_peer_event();
    /// Cuts the client's connections; turns new ones away, or lets them in. Any thread.
    void drop_bus();
    void refuse_bus(bool on);

    /// Kills the daemon and starts it again; the other process follows later, with renew_peer().
    void restart_daemon();
    void renew_peer();

    /// Ends the bus and the other process, and only them: for the end of a process whose client may
    /// not let its threads end.
    void abandon();

private:
    std::unique_ptr<bus_daemon> daemon_ = std::make_unique<bus_daemon>();
    std::mutex lock_; ///< guards the pointers to the process and to the way there
    std::unique_ptr<peer_process> peer_;
    std::shared_ptr<verdict> result_;
    std::shared_ptr<fast_loop> loop_;
    std::unique_ptr<proxy_bus> proxy_;
    crew threads_;
    client& bus_;
};

} // namespace tarn::test
