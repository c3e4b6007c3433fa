/// Keeps libubox from taking over signals that the application has left at their defaults while a
/// call of libubus initialises libubox's loop again.
#pragma once

#include <csignal>

namespace tarn::misc {

/// libubox takes over SIGINT, SIGTERM, SIGCHLD and SIGPIPE where they are at SIG_DFL. For the life
/// of this object they are not: a handler that does what the default would do replaces it. So
/// Ctrl-C ends the process even while a connect waits for a daemon that never answers, the
/// application's children stay its own to wait for, and at the end only the stand-in is removed,
/// not a handler that the application has installed meanwhile.
///
/// misc::unix_signal_actions, which restores whatever has changed, is for the start of the loop,
/// when nothing else changes signals.
class default_signals {
public:
    default_signals();
    ~default_signals();
    default_signals(const default_signals&) = delete;
    default_signals& operator=(const default_signals&) = delete;
};

} // namespace tarn::misc
