/// Keeps libubox from taking over signals that the application has left at their defaults.
#include "uloop/default_signals.h"

#include <cstddef>
#include <optional>

namespace tarn::misc {

namespace {

/// What the kernel heeds of an action when a child stops or ends, whatever the handler.
constexpr int flags_for_children = SA_NOCLDSTOP | SA_NOCLDWAIT;

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
/// exchange is restored at once. Returns the action that was replaced, if any was.
std::optional<struct sigaction> exchange(int signo, void (*expected)(int),
                                         const struct sigaction& wanted) {
    struct sigaction found {};
    if (::sigaction(signo, nullptr, &found) != 0 || found.sa_handler != expected) {
        return std::nullopt;
    }
    ::sigaction(signo, &wanted, &found);
    if (found.sa_handler != expected) {
        ::sigaction(signo, &found, nullptr);
        return std::nullopt;
    }
    return found;
}

} // namespace

default_signals::default_signals() {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        struct sigaction current {};
        ::sigaction(signals[i], nullptr, &current);
        // Also for a stand-in that is in place already: who saved it during an earlier connect and
        // put it back after that meant the default.
        found_[i] = default_action();
        found_[i].sa_flags = current.sa_flags & flags_for_children;

        struct sigaction stand_in {};
        stand_in.sa_handler = act_as_default;
        stand_in.sa_flags = SA_RESTART | found_[i].sa_flags;
        if (const auto replaced = exchange(signals[i], SIG_DFL, stand_in)) {
            found_[i] = *replaced;
        }
    }
}

default_signals::~default_signals() {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        exchange(signals[i], act_as_default, found_[i]);
    }
}

} // namespace tarn::misc
