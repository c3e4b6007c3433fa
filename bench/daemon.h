/// The bus daemons that a run of the benchmarks talks over.
#pragma once

#include "worker.h"

#include <memory>
#include <string>
#include <vector>

namespace tarn::bench {

/// Starts a daemon, waits until it listens, and ends it in the destructor. Failures throw
/// std::runtime_error.
class daemon {
public:
    /// `socket` is the path compiled into an installed libubus; empty with the bundled one, which
    /// is given a path of this run's own. A socket left there by a dead daemon is replaced; one
    /// that is served is left alone, and is a failure. Programs started afterwards connect to it.
    static std::unique_ptr<daemon> ubus(const std::string& program, const std::string& socket);

    /// A D-Bus daemon of this run's own, found only by programs that are given address().
    static std::unique_ptr<daemon> dbus(const std::string& program);

    ~daemon();
    daemon(const daemon&) = delete;
    daemon& operator=(const daemon&) = delete;

    /// In the form of D-Bus.
    std::string address() const { return "unix:path=" + socket_; }

private:
    /// `folder` was made for this run, and is removed; empty if the socket has its place.
    daemon(const std::string& folder, const std::string& socket,
           const std::vector<std::string>& command);

    const std::string folder_;
    const std::string socket_;
    worker process_;
};

} // namespace tarn::bench
