/// Keeps libubox from taking over signals that the application has left at their defaults.
#include "uloop/default_signals.h"

#include <array>

namespace tarn::misc {

namespace {

constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGCHLD, SIGPIPE};

struct sigaction default_action() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    return action;
}

/// Does what the default does: nothing for SIGCHLD, and the others end the process by that signal.
void act_as_default(int signo) {
    if (signo == SIGCHLD) {
        return;
    }
    const struct sigaction action = default_action();
    ::sigaction(signo, &action, nullptr);
    ::raise(signo); // delivered when this returns
}

/// Installs `wanted` where `expected` is in place, and touches nothing else: a signal that comes at
/// that moment is the application's. What the application installs between the check and the
/// exchange is restored at once.
void exchange(int signo, void (*expected)(int), const struct sigaction& wanted) {
    struct sigaction found {};
    if (::sigaction(signo, nullptr, &found) != 0 || found.sa_handler != expected) {
        return;
    }
    ::sigaction(signo, &wanted, &found);
    if (found.sa_handler != expected) {
        ::sigaction(signo, &found, nullptr);
    }
}

} // namespace

default_signals::default_signals() {
    struct sigaction stand_in {};
    stand_in.sa_handler = act_as_default;
    stand_in.sa_flags = SA_RESTART;
    for (const int signo : signals) {
        exchange(signo, SIG_DFL, stand_in);
    }
}

default_signals::~default_signals() {
    const struct sigaction action = default_action();
    for (const int signo : signals) {
        exchange(signo, act_as_default, action);
    }
}

} // namespace tarn::misc
