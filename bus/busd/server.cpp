/// Carries bytes between the clients' sockets and the broker.
#include "server.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace busd {
namespace {

// Bytes read from one client before the other clients are served.
constexpr std::size_t input_size = 64 * 1024;
constexpr int events_per_round = 64;
// Connections accepted before those that exist already are served.
constexpr int accepts_per_round = 64;
// How long to wait, in milliseconds, before accepting is tried again without descriptors.
constexpr int accept_pause = 500;

std::string user_name(uid_t id) {
    const passwd* entry = ::getpwuid(id);
    return entry != nullptr ? entry->pw_name : std::to_string(id);
}

std::string group_name(gid_t id) {
    const group* entry = ::getgrgid(id);
    return entry != nullptr ? entry->gr_name : std::to_string(id);
}

} // namespace

/// One client's socket.
class connection : public client {
public:
    connection(server& owner, descriptor socket, const ucred& peer)
        : client(user_name(peer.uid), group_name(peer.gid), peer.uid == 0 && peer.gid == 0)
        , server_(owner)
        , socket_(std::move(socket)) {}

    int fd() const { return socket_.get(); }

    void on_event(std::uint32_t events) {
        if (gone_) {
            return;
        }
        // Data seen together with the hang-up are not read: a client must not close before what it
        // has sent has been read.
        if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
            hang_up((events & (EPOLLHUP | EPOLLERR)) == 0);
        } else if ((events & EPOLLIN) != 0) {
            read_input();
        }
        if ((events & EPOLLOUT) != 0) {
            // One piece a round, however fast the reader is.
            if (out().empty()) {
                server_.broker_.resume(*this);
            }
            on_output();
        }
    }

    /// Writes what the reader takes now; the rest waits for the socket.
    void flush() {
        write_output();
        if (gone_) {
            return;
        }
        const bool waits = !out().empty() || has_more();
        if (!waits && leaving_) {
            close_later();
        } else if (waits != waiting_for_reader_) {
            waiting_for_reader_ = waits;
            watch(EPOLL_CTL_MOD);
        }
    }

    /// Has the server's epoll set report what this connection waits for.
    bool watch(int operation) {
        epoll_event event{};
        event.events = (leaving_ ? 0U : EPOLLIN | EPOLLRDHUP) |
                       (waiting_for_reader_ ? std::uint32_t{EPOLLOUT} : 0U);
        event.data.ptr = this;
        return ::epoll_ctl(server_.epoll_.get(), operation, fd(), &event) == 0;
    }

    void flush_round() {
        has_output_ = false;
        flush();
    }

protected:
    void on_output() override {
        if (!has_output_ && !gone_) {
            has_output_ = true;
            server_.with_output_.push_back(this);
        }
    }

    void on_full() override { write_output(); }

private:
    void read_input() {
        auto& input = server_.input_;
        const ssize_t count = ::recv(fd(), input.data(), input.size(), MSG_DONTWAIT);
        if (count > 0) {
            if (!server_.broker_.receive(*this, input.data(), static_cast<std::size_t>(count))) {
                close_later();
            }
        } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            close_later();
        }
    }

    void hang_up(bool still_reading) {
        if ((out().empty() && !has_more()) || !still_reading) {
            close_later();
        } else if (!leaving_) {
            leaving_ = true;
            watch(EPOLL_CTL_MOD);
        }
    }

    void write_output() {
        while (!gone_ && !out().empty()) {
            const ssize_t count =
                ::send(fd(), out().data(), out().size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count >= 0) {
                out().consume(static_cast<std::size_t>(count));
            } else if (errno == EAGAIN) {
                return;
            } else if (errno != EINTR) {
                close_later();
            }
        }
    }

    void close_later() {
        if (!gone_) {
            // What it asked for before it broke the rules is still its own.
            gone_ = true;
            if (!out().empty()) {
                const auto sent =
                    ::send(fd(), out().data(), out().size(), MSG_DONTWAIT | MSG_NOSIGNAL);
                static_cast<void>(sent);
            }
            server_.gone_.push_back(this);
        }
    }

    server& server_;
    descriptor socket_;
    bool waiting_for_reader_ = false;
    bool has_output_ = false;
    // It has stopped sending; it still gets what waits for it.
    bool leaving_ = false;
    bool gone_ = false;
};

server::server(int listening, int stopping)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC))
    , listening_(listening)
    , stopping_(stopping)
    , input_(input_size) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &stopping_;
    if (!epoll_ || ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, stopping_, &event) != 0) {
        throw std::runtime_error(std::string("cannot set up epoll: ") + std::strerror(errno));
    }
    watch_listener(true);
}

server::~server() {
    for (auto& [raw, kept] : connections_) {
        broker_.detach(*raw);
    }
}

void server::run() {
    std::array<epoll_event, events_per_round> events;
    for (;;) {
        const int count = ::epoll_wait(epoll_.get(), events.data(), events_per_round,
                                       listener_watched_ ? -1 : accept_pause);
        if (count < 0 && errno != EINTR) {
            throw std::runtime_error(std::string("epoll_wait: ") + std::strerror(errno));
        }
        if (!listener_watched_) {
            watch_listener(true);
        }
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            if (event.data.ptr == &stopping_) {
                return;
            }
            if (event.data.ptr == &listening_) {
                accept_clients();
            } else {
                static_cast<connection*>(event.data.ptr)->on_event(event.events);
            }
        }
        finish_round();
    }
}

void server::finish_round() {
    // Who goes leaves messages for others, and those may turn out to have gone, too.
    while (!with_output_.empty() || !gone_.empty()) {
        for (connection* ready : with_output_) {
            ready->flush_round();
        }
        with_output_.clear();
        for (connection* leaving : std::exchange(gone_, {})) {
            broker_.detach(*leaving);
            connections_.erase(leaving);
        }
    }
}

void server::watch_listener(bool on) {
    epoll_event event{};
    event.events = on ? std::uint32_t{EPOLLIN} : 0;
    event.data.ptr = &listening_;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, listening_, &event) != 0 &&
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listening_, &event) != 0) {
        throw std::runtime_error(std::string("cannot watch the socket: ") + std::strerror(errno));
    }
    listener_watched_ = on;
}

void server::accept_clients() {
    for (int i = 0; i < accepts_per_round; ++i) {
        descriptor socket(::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                watch_listener(false);
            }
            return;
        }
        ucred peer{};
        socklen_t size = sizeof peer;
        if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
            continue;
        }
        auto joining = std::make_unique<connection>(*this, std::move(socket), peer);
        connection* raw = joining.get();
        if (!raw->watch(EPOLL_CTL_ADD)) {
            continue;
        }
        connections_.emplace(raw, std::move(joining));
        broker_.attach(*raw);
    }
}

} // namespace busd
