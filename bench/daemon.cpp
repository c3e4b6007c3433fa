/// The bus daemons that a run of the benchmarks talks over.
#include "daemon.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarn::bench {
namespace {

namespace fs = std::filesystem;

/// As the bus of a desktop has it, with nothing on it but what the benchmarks start; the socket
/// goes between the two parts. Many calls in flight need more than the 128 replies that a
/// connection may wait for unless the settings say otherwise.
const char* const dbus_settings[] = {
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=)",
    R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow own="*"/>
  </policy>
  <limit name="max_replies_per_connection">50000</limit>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
</busconfig>
)"};

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

std::unique_ptr<daemon> daemon::ubus(const std::string& program, const std::string& socket) {
    const std::string folder = socket.empty() ? own_folder() : std::string();
    const std::string place = socket.empty() ? folder + "/ubus.sock" : socket;
    // Of the bundled libubus alone.
    ::setenv("UBUS_SOCKET", place.c_str(), 1);
    return std::unique_ptr<daemon>(new daemon(folder, place, {program, "-s", place}));
}

std::unique_ptr<daemon> daemon::dbus(const std::string& program) {
    const std::string folder = own_folder();
    const std::string place = folder + "/dbus.sock";
    const std::string settings = folder + "/dbus.conf";
    std::ofstream(settings) << dbus_settings[0] << place << dbus_settings[1];
    return std::unique_ptr<daemon>(new daemon(
        folder, place,
        {program, "--nofork", "--nopidfile", "--nosyslog", "--config-file=" + settings}));
}

daemon::daemon(const std::string& folder, const std::string& socket,
               const std::vector<std::string>& command)
    : folder_(folder)
    , socket_(freed(socket))
    , process_(command) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!serves(socket_)) {
        if (!process_.runs() || std::chrono::steady_clock::now() >= deadline) {
            throw std::runtime_error(command.front() + " does not serve " + socket_);
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
