/// The bus daemon that a run of the benchmarks talks over.
#include "daemon.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarn::bench {
namespace {

namespace fs = std::filesystem;

std::string own_folder() {
    std::string path = fs::temp_directory_path() / "tarn-bench-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("cannot make " + path + ": " + std::strerror(errno));
    }
    return path;
}

bool serves(const std::string& socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("too long for a socket: " + socket);
    }
    std::memcpy(address.sun_path, socket.c_str(), socket.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected =
        fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

const std::string& freed(const std::string& socket) {
    if (serves(socket)) {
        throw std::runtime_error("a living daemon serves " + socket);
    }
    const fs::file_status there = fs::symlink_status(socket);
    if (fs::is_socket(there) || fs::is_symlink(there)) {
        fs::remove(socket);
    }
    return socket;
}

} // namespace

daemon::daemon(const std::string& program, const std::string& socket)
    : folder_(socket.empty() ? own_folder() : std::string())
    , socket_(socket.empty() ? folder_ + "/ubus.sock" : socket)
    , process_({program, "-s", freed(socket_)}) {
    // Of the bundled libubus alone.
    ::setenv("UBUS_SOCKET", socket_.c_str(), 1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!serves(socket_)) {
        if (!process_.runs() || std::chrono::steady_clock::now() >= deadline) {
            throw std::runtime_error(program + " does not serve " + socket_);
        }
        ::poll(nullptr, 0, 2);
    }
}

daemon::~daemon() {
    std::error_code ignored;
    fs::remove(socket_, ignored);
    if (!folder_.empty()) {
        fs::remove_all(folder_, ignored);
    }
}

} // namespace tarn::bench
