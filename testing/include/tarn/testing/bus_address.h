/// Leads the clients of a test to one of its buses.
#pragma once

#include <string>

namespace tarn::testing {

/// The path of a bus's socket. The constructor leads clients there.
class bus_address {
public:
    /// `compiled_in` is the socket that the libubus in use has compiled in, and only that: empty
    /// for the bundled libubus, which asks the environment. See lead_clients_here().
    explicit bus_address(std::string path, std::string compiled_in = {});
    ~bus_address();
    bus_address(const bus_address&) = delete;
    bus_address& operator=(const bus_address&) = delete;

    /// The path of the socket itself.
    const std::string& path() const { return path_; }

    /// From now on ubus_connect(NULL), in this process and in those that it starts, leads to this
    /// socket. Connections that are there already stay.
    ///
    /// The bundled libubus reads the path from the environment variable UBUS_SOCKET, which this
    /// sets: other threads must not be in getenv() meanwhile. For a libubus with a path compiled
    /// in, that path becomes a symbolic link: one test at a time may use it. Errors:
    /// std::system_error when the link cannot be made.
    void lead_clients_here() const;

private:
    const std::string path_;
    const std::string compiled_in_;
};

} // namespace tarn::testing
