/// Keeps libubox from taking signals away from the application while other threads run.
#include "uloop/libubox_signals.h"

#include <cstddef>
#include <optional>

namespace tarn::misc {

namespace {

using action = struct sigaction;

constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGCHLD, SIGPIPE};

/// libubox's own actions, in the order of `signals`. Trivially destructible, since a loop thread
/// left behind at the end of the process may still read it.
std::array<std::optional<action>, signals.size()> learned;

action current_action(int signo) {
    action current{};
    ::sigaction(signo, nullptr, &current);
    return current;
}

bool same(const action& a, const action& b) {
    return a.sa_handler == b.sa_handler && a.sa_flags == b.sa_flags;
}

} // namespace

libubox_signals::libubox_signals() {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        before_[i] = current_action(signals[i]);
    }
}

void libubox_signals::learn() const {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const action now = current_action(signals[i]);
        if (before_[i].sa_handler == SIG_DFL && now.sa_handler != SIG_DFL) {
            learned[i] = now;
        }
    }
}

void libubox_signals::put_back() const {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const action now = current_action(signals[i]);
        if (before_[i].sa_handler != SIG_DFL || now.sa_handler == SIG_DFL) {
            continue; // libubox leaves alone what is not at its default
        }
        if (!learned[i] || same(*learned[i], now)) {
            ::sigaction(signals[i], &before_[i], nullptr);
        }
    }
}

} // namespace tarn::misc
