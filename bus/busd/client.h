/// One client of the daemon as the broker sees it: who it is, and bytes in and out. Where the bytes
/// come from and go to is a derived class's business (a socket, or a test's memory).
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "outbox.h"

namespace busd {

struct object;

/// A look-up whose answer waits for its reader.
struct pending_lookup {
    bus::message_head request;
    /// An exact path, or what the paths begin with.
    std::string path;
    bool prefix;
    /// Something has been found, or need not be.
    bool any;
    /// Only paths behind this one are still to come, once there is one.
    bool begun;
    std::string last;
};

class client {
public:
    /// `is_root`: it may see what others send.
    client(std::string user, std::string group, bool is_root = false)
        : user_(std::move(user))
        , group_(std::move(group))
        , is_root_(is_root) {}
    virtual ~client() = default;
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    /// What waits for this client; the derived class takes it from here.
    outbox& out() { return out_; }

    /// Answers to look-ups wait until out() has been read.
    bool has_more() const { return !lookups_.empty(); }

    /// Its id on the bus; 0 while it is not attached.
    std::uint32_t id() const { return id_; }

protected:
    /// A message has been put into out(). Not reentrant: no client may be attached to the broker or
    /// detached from it in here.
    virtual void on_output() {}

    /// The next message does not fit into out(): the last moment to take bytes from it before
    /// that message is dropped. The same restriction holds.
    virtual void on_full() {}

private:
    friend class broker;

    std::uint32_t id_ = 0;
    std::string user_;
    std::string group_;
    bool is_root_;
    // The start of a message whose rest has not arrived yet.
    std::vector<std::uint8_t> partial_;
    // The oldest first.
    std::list<object*> objects_;
    outbox out_;
    // In the order of their requests; only the first has been begun.
    std::deque<pending_lookup> lookups_;
    std::size_t lookups_size_ = 0;
};

} // namespace busd
