/// The daemon's listening socket.
#include "listener.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace busd {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    throw std::runtime_error(what + ": " + std::strerror(error));
}

descriptor new_socket() {
    descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made) {
        fail("cannot make a socket", errno);
    }
    return made;
}

void remove_if_stale(const std::string& path, const sockaddr_un& address) {
    struct stat found;
    if (::lstat(path.c_str(), &found) != 0) {
        // The path does not exist, or bind() will name the reason.
        return;
    }
    if (!S_ISSOCK(found.st_mode)) {
        throw std::runtime_error(path + " exists and is not a socket");
    }
    const descriptor probe = new_socket();
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno == EAGAIN) {
        // EAGAIN: its queue of connections is full, but there is a listener.
        throw std::runtime_error("another daemon is listening on " + path);
    }
    if (errno != ECONNREFUSED) {
        fail("cannot tell whether " + path + " is in use", errno);
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        fail("cannot remove the stale socket " + path, errno);
    }
}

} // namespace

listener::listener(const std::string& path)
    : path_(path)
    , socket_(new_socket()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw std::runtime_error("the socket's path must have 1 to " +
                                 std::to_string(sizeof address.sun_path - 1) + " characters");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    remove_if_stale(path, address);
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("cannot bind " + path, errno);
    }
    struct stat bound {};
    if (::listen(socket_.get(), SOMAXCONN) != 0 || ::lstat(path.c_str(), &bound) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        fail("cannot listen on " + path, error);
    }
    device_ = bound.st_dev;
    inode_ = bound.st_ino;
}

listener::~listener() {
    struct stat found;
    if (::lstat(path_.c_str(), &found) == 0 && found.st_dev == device_ && found.st_ino == inode_) {
        ::unlink(path_.c_str());
    }
}

} // namespace busd
