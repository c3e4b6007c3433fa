/// The way of the client to the daemon.
#include "proxy_bus.h"

#include "delays.h"
#include "journal.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tarn::test {

namespace {

int connect_to(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), std::min(path.size(), sizeof address.sun_path - 1));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 &&
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

proxy_bus::proxy_bus(std::string daemon)
    : daemon_(std::move(daemon))
    , wake_up_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , thread_([this] { run(); }) {}

proxy_bus::~proxy_bus() {
    ending_ = true;
    drop();
    thread_.join();
    ::close(wake_up_);
}

void proxy_bus::drop() {
    dropping_ = true;
    const std::uint64_t one = 1;
    (void)!::write(wake_up_, &one, sizeof one);
}

bool proxy_bus::pass_on(int from, int to) {
    std::array<char, 16384> buffer;
    const ssize_t size = ::recv(from, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) {
        return size < 0 && (errno == EAGAIN || errno == EINTR);
    }
    maybe_delay();
    for (ssize_t sent = 0; sent < size;) {
        const ssize_t part =
            ::send(to, buffer.data() + sent, static_cast<std::size_t>(size - sent), MSG_NOSIGNAL);
        if (part < 0 && errno != EINTR) {
            return false;
        }
        sent += part < 0 ? 0 : part;
    }
    return true;
}

void proxy_bus::take_in() {
    wire::peer client = socket_.accept();
    if (refusing_) {
        return;
    }
    const int daemon = connect_to(daemon_);
    if (daemon >= 0) {
        connections_.push_back({std::move(client), wire::peer(daemon)});
    }
}

void proxy_bus::run() {
    journal::name_thread("proxy");
    number_thread(2);
    std::vector<pollfd> sockets;
    while (!ending_) {
        sockets.assign({{wake_up_, POLLIN, 0}, {socket_.fd(), POLLIN, 0}});
        for (const auto& c : connections_) {
            sockets.push_back({c.client.fd(), POLLIN, 0});
            sockets.push_back({c.daemon.fd(), POLLIN, 0});
        }
        ::poll(sockets.data(), sockets.size(), -1);
        if (dropping_.exchange(false)) {
            std::uint64_t count = 0;
            (void)!::read(wake_up_, &count, sizeof count);
            maybe_delay();
            connections_.clear();
            continue;
        }
        // Those who come in come last: whoever has hung up before is told to the daemon first.
        auto ready = sockets.begin() + 2;
        for (auto c = connections_.begin(); c != connections_.end();) {
            const bool from_client = (ready++)->revents != 0;
            const bool from_daemon = (ready++)->revents != 0;
            const bool alive = (!from_client || pass_on(c->client.fd(), c->daemon.fd())) &&
                               (!from_daemon || pass_on(c->daemon.fd(), c->client.fd()));
            if (alive) {
                ++c;
            } else {
                // The daemon forgets it before the client knows.
                c->daemon.close();
                c = connections_.erase(c);
            }
        }
        if (sockets[1].revents != 0) {
            take_in();
        }
    }
}

} // namespace tarn::test
