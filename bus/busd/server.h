/// Carries bytes between the clients' sockets and the broker: one thread, one epoll set, nothing
/// that ever waits for a single client.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "broker.h"
#include "descriptor.h"

namespace busd {

class connection;

class server {
public:
    /// `listening` is a non-blocking listening socket, `stopping` a descriptor that becomes
    /// readable when run() shall return. The caller keeps ownership of both.
    server(int listening, int stopping);
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    /// Serves until `stopping` is readable.
    void run();

private:
    friend class connection;

    void accept_clients();
    void watch_listener(bool on);
    void finish_round();

    broker broker_;
    descriptor epoll_;
    int listening_;
    int stopping_;
    // Off while the process is out of descriptors: a waiting connection keeps the listening
    // socket readable, and the loop would spin on it.
    bool listener_watched_ = false;
    std::unordered_map<connection*, std::unique_ptr<connection>> connections_;
    // Connections that this round's messages wait for. Written to once a round, so that a burst of
    // messages costs its reader one wake-up.
    std::vector<connection*> with_output_;
    // Connections that have ended. Destroyed at the end of the round, when neither the broker nor
    // an event of this round refers to them.
    std::vector<connection*> gone_;
    std::vector<std::uint8_t> input_;
};

} // namespace busd
