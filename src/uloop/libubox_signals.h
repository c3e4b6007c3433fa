/// Keeps libubox from taking signals away from the application while other threads run.
#pragma once

#include <array>
#include <csignal>

namespace tarn::misc {

/// Undoes what an initialisation of libubox's loop did to the signals it is interested in, and
/// nothing else. misc::unix_signal_actions puts back whatever has changed, which is right while
/// nobody else runs; during a connect the application may be installing a handler of its own, and
/// that one must stay. So libubox's handlers are learned when its loop first installs them, and
/// only those are taken out again.
///
/// The loop thread only.
class libubox_signals {
public:
    /// Notes the dispositions as they are before the initialisation.
    libubox_signals();

    /// After the loop's first initialisation: what has changed is libubox's.
    void learn() const;

    /// After any later one: puts back what was there where libubox's is now. Where it has not been
    /// learned (the application had a handler of its own when the loop started), anything new in
    /// place of the default counts as libubox's.
    void put_back() const;

private:
    std::array<struct sigaction, 4> before_;
};

} // namespace tarn::misc
