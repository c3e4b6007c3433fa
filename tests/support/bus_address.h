/// The way of clients to one of a test's buses.
#pragma once

#include <string>

namespace tarn::test {

/// The path of a bus's socket. The constructor leads clients there.
class bus_address {
public:
    explicit bus_address(std::string path);
    ~bus_address();
    bus_address(const bus_address&) = delete;
    bus_address& operator=(const bus_address&) = delete;

    const std::string& path() const { return path_; }

    /// From now on ubus_connect(NULL), in this process and in those it starts, leads to this
    /// socket. Connections that are there already stay. Failure throws std::system_error.
    ///
    /// The bundled libubus reads the path from the environment variable UBUS_SOCKET, so other
    /// threads must not be in getenv() meanwhile. An installed libubus has a path compiled in,
    /// which becomes a symbolic link.
    void lead_clients_here() const;

private:
    const std::string path_;
};

} // namespace tarn::test
