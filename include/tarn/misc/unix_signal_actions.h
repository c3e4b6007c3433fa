/// unix_signal_actions: keeps the process's signal dispositions across a call that changes them.
#pragma once

#include "tarn/export.h"

#include <csignal>
#include <map>
#include <utility>

namespace tarn::misc {

/// Records the dispositions of chosen signals and puts back those that were changed since.
///
/// Dispositions belong to the whole process; the object takes no lock and is meant for one thread
/// that wraps one call in set() and restore(). Its destruction restores nothing.
class TARN_API unix_signal_actions {
public:
    /// Records the current action of `signo`, then of each further signal in order. The first
    /// recorded action of a signal is kept. Installs nothing.
    ///
    /// Errors: throws std::runtime_error
    /// "unix_signal_actions failed to get old action of signal ..." for a signal that has no action
    /// to read; those before it are recorded.
    template <class... Signos>
    void set(int signo, Signos&&... more) {
        save(signo);
        set(std::forward<Signos>(more)...);
    }
    /// Nothing to record.
    void set() {}

    /// Puts back, in the order of the signal numbers, each recorded action whose handler is no
    /// longer the installed one. A changed mask or changed flags alone are left as they are. The
    /// record is kept, so it can be put back again.
    ///
    /// Errors: throws std::runtime_error
    /// "unix_signal_actions failed to get new action of signal ..." or
    /// "unix_signal_actions failed to set back old action for signal ..." at the first failure; the
    /// signals after it are left as they are.
    void restore();

private:
    void save(int signo);

    std::map<int, struct sigaction> actions_;
};

} // namespace tarn::misc
