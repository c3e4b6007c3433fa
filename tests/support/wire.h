/// Raw messages of the bus for its tests: building, sending and receiving them byte by byte, and
/// the recorded exchanges. Independent of the code under test.
#pragma once

#include "support/temporary_folder.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace wire {

/// A type of its own, so that its operators are found from every namespace.
struct bytes : std::vector<std::uint8_t> {
    using std::vector<std::uint8_t>::vector;
};

enum type : std::uint8_t {
    hello,
    status,
    data,
    ping,
    lookup,
    invoke,
    add_object,
    remove_object,
    subscribe,
    unsubscribe,
    notify,
    monitor
};

/// Attributes, to be joined with +.
bytes u32(std::uint8_t id, std::uint32_t value);
bytes text(std::uint8_t id, const std::string& value);
bytes nested(std::uint8_t id, const bytes& payload);
bytes operator+(bytes left, const bytes& right);

/// A blobmsg field with a name, as it stands in a DATA or SIGNATURE attribute.
bytes field(std::uint8_t blobmsg_type, const std::string& name, const bytes& payload);

inline bytes status_is(std::uint32_t value) {
    return u32(1, value);
}
inline bytes objpath(const std::string& path) {
    return text(2, path);
}
inline bytes objid(std::uint32_t id) {
    return u32(3, id);
}
inline bytes method(const std::string& name) {
    return text(4, name);
}
inline bytes objtype(std::uint32_t id) {
    return u32(5, id);
}
inline bytes signature(const bytes& methods) {
    return nested(6, methods);
}
inline bytes data_of(const bytes& fields) {
    return nested(7, fields);
}

/// A signature with one method without arguments.
bytes one_method(const std::string& name);

/// A whole message.
bytes message(std::uint8_t type, std::uint16_t seq, std::uint32_t peer, const bytes& attributes);

/// A received message, whole.
struct received {
    bytes raw;
    std::uint8_t type() const { return raw.at(1); }
    std::uint16_t seq() const;
    std::uint32_t peer() const { return word(4); }
    /// The 32-bit number at an offset into the message.
    std::uint32_t word(std::size_t offset) const;
    /// What an attribute holds; empty if there is none.
    bytes attribute(std::uint8_t id) const;
    std::uint32_t number(std::uint8_t id) const;
};

/// One end of a stream socket; closes it. Calls that do not come to an end within a generous limit
/// throw std::runtime_error.
class peer {
public:
    peer() = default;
    explicit peer(int fd)
        : fd_(fd) {}
    peer(peer&& other) noexcept
        : fd_(other.fd_) {
        other.fd_ = -1;
    }
    peer& operator=(peer&& other) noexcept;
    ~peer();

    int fd() const { return fd_; }
    void close();
    void send(const bytes& raw) const;
    /// Sends what fits without waiting; returns how much that was, 0 if the other end is gone.
    std::size_t send_some(const bytes& raw) const;
    /// The next whole message; throws at the end of the stream.
    received receive() const;
    bytes receive_bytes(std::size_t count) const;
    /// Waits until the other end has closed the stream, whatever is read before.
    void wait_for_end() const;
    /// True if something can be read now.
    bool readable() const;

private:
    int fd_ = -1;
};

/// A listening socket in a folder of its own, for a test that plays the daemon.
class listening {
public:
    listening();
    ~listening();
    listening(const listening&) = delete;
    listening& operator=(const listening&) = delete;

    const std::string& path() const { return path_; }
    int fd() const { return fd_; }
    peer accept() const;

private:
    const tarn::test::temporary_folder folder_;
    const std::string path_ = folder_.path() + "/bus.sock";
    int fd_ = -1;
};

/// One line of a recorded exchange.
struct recorded {
    /// Which of the clients, if the recording has several.
    std::string client;
    bool from_client;
    /// Empty for the end of the client.
    bytes raw;
};

/// Reads a recording from tests/data.
std::vector<recorded> load(const std::string& file);

/// Matches ids that are random on each run with those of a recording. The first encounter binds
/// them; from then on each must stand where the other stands.
class id_map {
public:
    /// Takes the ids of clients, objects and types that the daemon gives in a recording.
    void learn(const std::vector<recorded>& lines);
    /// Puts the ids of this run into a recorded message.
    bytes to_actual(bytes raw) const;
    /// Puts the recorded ids into a message of this run, binding those that `expected` has at the
    /// same place and that are not bound yet.
    bytes to_recorded(bytes raw, const bytes& expected);

private:
    std::set<std::uint32_t> recorded_;
    std::map<std::uint32_t, std::uint32_t> actual_;
};

/// A recorded message with the user and the group that recorded it replaced by the ones that run
/// the test.
bytes with_own_names(const bytes& raw);

/// Who runs the test, as the daemon names it.
std::string own_user();
std::string own_group();

std::string hex(const bytes& raw);

} // namespace wire
