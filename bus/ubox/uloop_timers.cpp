/// uloop's timers: one list, sorted by time, equal times in the order of adding.
#include "uloop_timers.h"

#include <climits>
#include <ctime>

#include "headers.h"

namespace {

list_head pending{&pending, &pending};

constexpr long microseconds_per_second = 1'000'000;

uloop_timeout* timer_of(list_head* node) {
    return list_entry(node, uloop_timeout, list);
}

// Not timercmp(): its casts do not pass our warnings.
bool before(const timeval& a, const timeval& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

} // namespace

timeval ubox::monotonic_now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    timeval result{};
    result.tv_sec = now.tv_sec;
    result.tv_usec = static_cast<decltype(result.tv_usec)>(now.tv_nsec / 1000);
    return result;
}

int ubox::milliseconds_until(const timeval& when, const timeval& now) {
    const long long microseconds =
        static_cast<long long>(when.tv_sec - now.tv_sec) * microseconds_per_second +
        (when.tv_usec - now.tv_usec);
    if (microseconds <= 0) {
        return 0;
    }
    const long long milliseconds = (microseconds + 999) / 1000;
    return milliseconds > INT_MAX ? INT_MAX : static_cast<int>(milliseconds);
}

timeval ubox::later_by(const timeval& start, int milliseconds) {
    timeval result = start;
    result.tv_sec += milliseconds / 1000;
    result.tv_usec += milliseconds % 1000 * 1000;
    if (result.tv_usec >= microseconds_per_second) {
        ++result.tv_sec;
        result.tv_usec -= microseconds_per_second;
    }
    return result;
}

void ubox::run_due_timers() {
    // One look at the clock: a timer that sets itself again with 0 waits for the next round
    // instead of keeping the descriptors from theirs.
    const timeval now = monotonic_now();
    while (!list_empty(&pending)) {
        uloop_timeout* const timer = timer_of(pending.next);
        if (before(now, timer->time)) {
            return;
        }
        uloop_timeout_cancel(timer);
        timer->cb(timer);
    }
}

int ubox::milliseconds_to_next_timer() {
    return list_empty(&pending) ? -1
                                : milliseconds_until(timer_of(pending.next)->time, monotonic_now());
}

void ubox::cancel_all_timers() {
    while (!list_empty(&pending)) {
        uloop_timeout_cancel(timer_of(pending.next));
    }
}

int uloop_timeout_set(uloop_timeout* timeout, int msecs) {
    uloop_timeout_cancel(timeout);
    timeout->time = ubox::later_by(ubox::monotonic_now(), msecs < 0 ? 0 : msecs);
    return uloop_timeout_add(timeout);
}

int uloop_timeout_add(uloop_timeout* timeout) {
    if (timeout->pending) {
        return -1;
    }
    // From the back, where most new timers belong.
    list_head* earlier = pending.prev;
    while (earlier != &pending && before(timeout->time, timer_of(earlier)->time)) {
        earlier = earlier->prev;
    }
    list_add(&timeout->list, earlier);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_cancel(uloop_timeout* timeout) {
    if (!timeout->pending) {
        return -1;
    }
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int uloop_timeout_remaining(uloop_timeout* timeout) {
    return timeout->pending ? ubox::milliseconds_until(timeout->time, ubox::monotonic_now()) : -1;
}
