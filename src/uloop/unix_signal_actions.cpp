/// Saving and restoring signal dispositions.
#include "tarn/misc/unix_signal_actions.h"

#include "uloop/system_failure.h"

#include <string>
#include <utility>

namespace tarn::misc {

namespace {

std::runtime_error failure(const char* what, int signo) {
    std::string failed = "unix_signal_actions failed to ";
    failed += what;
    failed += std::to_string(signo);
    failed += ' ';
    return system_failure(std::move(failed), ": ");
}

/// The handler of an action, which shares its place with the three-argument kind of handler.
auto handler_of(const struct sigaction& action) {
    return action.sa_handler;
}

} // namespace

void unix_signal_actions::save(int signo) {
    struct sigaction old = {};
    if (::sigaction(signo, nullptr, &old) < 0) {
        throw failure("get old action of signal ", signo);
    }
    actions_.emplace(signo, old);
}

void unix_signal_actions::restore() {
    for (const auto& [signo, saved] : actions_) {
        struct sigaction current = {};
        if (::sigaction(signo, nullptr, &current) < 0) {
            throw failure("get new action of signal ", signo);
        }
        if (handler_of(current) != handler_of(saved) && ::sigaction(signo, &saved, nullptr) < 0) {
            throw failure("set back old action for signal ", signo);
        }
    }
}

} // namespace tarn::misc
