/// What the loop asks of the signals it takes.
#pragma once

namespace ubox {

/// Opens the descriptor that becomes readable when a signal has come. False, with errno, if there
/// is none left. It is what makes sure that a signal ends the loop's wait although it came right
/// before the wait began, or on another thread.
bool open_signal_wakeup();

/// The open descriptor, which the loop watches.
int signal_wakeup_fd();

/// Makes it unreadable again.
void drain_signal_wakeup();

void close_signal_wakeup();

/// Takes SIGINT, SIGTERM, SIGCHLD and SIGPIPE, each only if its disposition is SIG_DFL; SIGCHLD
/// only if uloop_handle_sigchld says so.
void take_signals();

/// Gives those with a handler back to SIG_DFL that still have it. SIGPIPE stays ignored.
void give_signals_back();

/// The last signal that has cancelled the loop since forget_ending_signal(); 0 if there is none.
int last_ending_signal();
void forget_ending_signal();

/// Waits for all children that have ended, if SIGCHLD has come.
void collect_children();

} // namespace ubox
