/// The bus daemon that a run of the benchmarks talks over.
#pragma once

#include "worker.h"

#include <string>

namespace tarn::bench {

/// Starts a daemon, waits until it listens, and ends it in the destructor. Leads the programs that
/// are started afterwards to its socket. Failures throw std::runtime_error.
class daemon {
public:
    /// `socket` is the path compiled into an installed libubus; empty with the bundled one, which
    /// is told a path of this run's own. What a dead daemon has left there is replaced; a living
    /// one is left alone, and is a failure.
    daemon(const std::string& program, const std::string& socket);
    ~daemon();
    daemon(const daemon&) = delete;
    daemon& operator=(const daemon&) = delete;

private:
    const std::string folder_; ///< made for the socket; empty if it has its place
    const std::string socket_;
    worker process_;
};

} // namespace tarn::bench
