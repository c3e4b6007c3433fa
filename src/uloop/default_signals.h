/// Keeps libubox from taking over signals that the application has left at their defaults while a
/// call of libubus initialises libubox's loop again.
#pragma once

#include <array>
#include <csignal>

namespace tarn::misc {

/// libubox takes over SIGINT, SIGTERM, SIGCHLD and SIGPIPE where they are at SIG_DFL. For the life
/// of this object they are not: a handler that does what the default would do replaces it. So
/// Ctrl-C ends the process even while a connect waits for a daemon that never answers, the
/// application's children stay its own to wait for (or nobody's, if the application has asked for
/// that with SA_NOCLDWAIT). At the end the action that was found, flags and mask included, takes
/// the place of the stand-in, but not that of a handler which the application has installed
/// meanwhile.
///
/// misc::unix_signal_actions, which restores whatever has changed, is for the start of the loop,
/// when nothing else changes signals.
class default_signals {
public:
    default_signals();
    ~default_signals();
    default_signals(const default_signals&) = delete;
    default_signals& operator=(const default_signals&) = delete;

private:
    static constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGCHLD, SIGPIPE};

    // What is put back for each of them.
    std::array<struct sigaction, signals.size()> found_{};
};

} // namespace tarn::misc
