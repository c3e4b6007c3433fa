/// The way of the client to the daemon, by a thread that can cut it: a bus that is lost and comes
/// back within microseconds, while the daemon and the other processes on it live on.
#pragma once

#include "support/bus_address.h"
#include "support/wire.h"

#include <atomic>
#include <list>
#include <string>
#include <thread>

namespace tarn::test {

/// Leads clients of this process to itself. What the daemon and the client see keeps its order: the
/// end of one connection is passed on ahead of the beginning of the next.
class proxy_bus {
public:
    explicit proxy_bus(std::string daemon);
    ~proxy_bus();
    proxy_bus(const proxy_bus&) = delete;
    proxy_bus& operator=(const proxy_bus&) = delete;

    /// Ends all connections. They may still be there for a moment when this returns. Any thread.
    void drop();
    /// Whether those who connect are turned away. Any thread.
    void refuse(bool on) { refusing_ = on; }

private:
    struct connection {
        wire::peer client;
        wire::peer daemon;
    };

    void run();
    static bool pass_on(int from, int to);
    void take_in();

    const std::string daemon_;
    const wire::listening socket_;
    const bus_address address_{socket_.path()};
    int wake_up_ = -1;
    std::atomic<bool> dropping_{false};
    std::atomic<bool> refusing_{false};
    std::atomic<bool> ending_{false};
    std::list<connection> connections_; ///< the thread's
    std::thread thread_;
};

} // namespace tarn::test
