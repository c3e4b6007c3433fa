/// What the loop asks of the timers.
#pragma once

#include <sys/time.h>

namespace ubox {

/// The monotonic clock, which timers and the loop count on.
timeval monotonic_now();

/// Milliseconds from `now` until `when`, rounded up, so that a wait of that length does not end too
/// early; 0 if it has passed.
int milliseconds_until(const timeval& when, const timeval& now);

timeval later_by(const timeval& start, int milliseconds);

/// Runs the handlers of the timers that are due by now, the earliest first, also when one of them
/// ends the loop.
void run_due_timers();

/// How long the loop may wait for the first timer; -1 if there is none.
int milliseconds_to_next_timer();

void cancel_all_timers();

} // namespace ubox
