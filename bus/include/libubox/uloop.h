/// uloop, the process's event loop for descriptors, timers and four signals, for C and C++.
///
/// There is one loop, and all of its state belongs to the process: everything here may be called
/// from one thread only. Records are the caller's and must stay where they are while registered.
/// A callback may delete and free any record, its own included, and may run the loop again inside.
/// C++ code puts `extern "C"` around the include.
#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#include <libubox/list.h>

struct uloop_fd;
struct uloop_timeout;

/** `events` are those of ULOOP_READ and ULOOP_WRITE that have come; none if only `error` has. */
typedef void (*uloop_fd_handler)(struct uloop_fd* fd, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout* timeout);

#define ULOOP_READ (1u << 0)
#define ULOOP_WRITE (1u << 1)
#define ULOOP_EDGE_TRIGGER (1u << 2)
/** Leave the descriptor blocking. */
#define ULOOP_BLOCKING (1u << 3)

/** A watched descriptor. Zero it, then set `cb` and `fd`. */
struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;   /* the peer has hung up; unread data may be left */
    bool error; /* an error or a hang-up in both directions; not watched any more */
    bool registered;
    uint8_t flags;
};

/** A timer that fires once. Zero it, then set `cb`. */
struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    struct timeval time; /* when it fires, on the monotonic clock */
};

/** Ends uloop_run() soon after it becomes true. */
extern bool uloop_cancelled;

/** Whether uloop_init() may take SIGCHLD; true unless the program says otherwise. With it, the
 * loop collects every child of the process. */
extern bool uloop_handle_sigchld;

/**
 * Makes the loop ready. May be called again at any time, also while the loop runs; calls are not
 * counted.
 *
 * Every call takes those of four signals whose disposition is SIG_DFL at that moment: SIGINT and
 * SIGTERM set uloop_cancelled, SIGCHLD makes the loop wait for all ended children, SIGPIPE is
 * ignored. 0, or -1 with errno if there is no descriptor or memory left.
 */
int uloop_init(void);

/** Runs the loop until uloop_cancelled, which it sets to false first; with a `timeout` of 0 or more
 * for one round: timers that are due, then one event, waiting for it at most that many
 * milliseconds and not beyond the next timer. Ended by uloop_cancelled inside another uloop_run(),
 * it ends that one too. 0, or the number of the signal that has ended it; -1 if the loop is not
 * ready. */
int uloop_run_timeout(int timeout);

static inline int uloop_run(void) {
    return uloop_run_timeout(-1);
}

/** Ends the running loop after the callback that calls this. */
static inline void uloop_end(void) {
    uloop_cancelled = true;
}

/** Whether the loop is running and about to end. */
bool uloop_cancelling(void);

/** Cancels all timers, forgets all descriptors and gives those signals back to SIG_DFL whose
 * handler is still uloop's; SIGPIPE stays ignored. */
void uloop_done(void);

/** Watches a descriptor for the given ULOOP_... flags, or changes what a watched one is watched
 * for; without READ and WRITE it is deleted. Clears `eof` and `error`, and makes the descriptor
 * non-blocking unless ULOOP_BLOCKING. 0, or -1 with errno. */
int uloop_fd_add(struct uloop_fd* sock, unsigned int flags);

/** Stops watching; no callback follows, not even for an event that is already there. Do this
 * before closing the descriptor. 0, also if it was not watched, or -1 with errno. */
int uloop_fd_delete(struct uloop_fd* sock);

/** Fires the timer in `msecs` milliseconds, at once if negative; a pending one is moved. */
int uloop_timeout_set(struct uloop_timeout* timeout, int msecs);

/** Fires the timer at its `time`. -1 if it is pending already. */
int uloop_timeout_add(struct uloop_timeout* timeout);

/** -1 if it is not pending. */
int uloop_timeout_cancel(struct uloop_timeout* timeout);

/** Milliseconds, rounded up, until it fires; 0 if it is overdue, -1 if it is not pending. */
int uloop_timeout_remaining(struct uloop_timeout* timeout);
