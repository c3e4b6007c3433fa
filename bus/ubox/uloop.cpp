/// The loop itself: descriptors, over epoll, and the rounds that serve them, the timers and the
/// signals.
///
/// Events are fetched in batches and served one a round. What a fetch says about the end of a
/// descriptor is noted in all of its records before the first callback runs. The batch outlives the
/// round and nested runs share it, so deleting a descriptor takes its event out of the batch.
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "headers.h"
#include "uloop_signals.h"
#include "uloop_timers.h"

bool uloop_cancelled = false;

namespace {

constexpr int batch_size = 10;

int epoll = -1;
int running = 0; // runs in progress, one inside the other

// An event that has been fetched and is yet to be served.
struct fetched_event {
    uloop_fd* sock; // null once the descriptor has been deleted
    unsigned events;
};

fetched_event batch[batch_size];
int batch_next = 0;
int batch_end = 0;

// In the batch, represents the signals' wake-up, which is no descriptor of the application's.
uloop_fd signal_wakeup{};

bool cancelled() {
    return __atomic_load_n(&uloop_cancelled, __ATOMIC_RELAXED);
}

void forget_events_of(const uloop_fd* sock) {
    for (int i = batch_next; i < batch_end; ++i) {
        if (batch[i].sock == sock) {
            batch[i].sock = nullptr;
        }
    }
}

std::uint32_t epoll_events(unsigned flags) {
    std::uint32_t events = 0;
    if ((flags & ULOOP_READ) != 0) {
        events |= EPOLLIN | EPOLLRDHUP;
    }
    if ((flags & ULOOP_WRITE) != 0) {
        events |= EPOLLOUT;
    }
    if ((flags & ULOOP_EDGE_TRIGGER) != 0) {
        events |= EPOLLET;
    }
    return events;
}

int watch(uloop_fd* sock, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = sock;
    if (sock->registered && ::epoll_ctl(epoll, EPOLL_CTL_MOD, sock->fd, &event) == 0) {
        return 0;
    }
    // A record that outlived uloop_done() says it is registered, but this epoll does not know it.
    if (sock->registered && errno != ENOENT) {
        return -1;
    }
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, sock->fd, &event);
}

void make_non_blocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) == 0) {
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

int stop_watching(uloop_fd* sock) {
    if (!sock->registered) {
        return 0;
    }
    sock->registered = false;
    return ::epoll_ctl(epoll, EPOLL_CTL_DEL, sock->fd, nullptr);
}

// Notes in the record an end of the descriptor (`eof`, `error`), and returns the events for its
// callback. What it is watched for may change until then: the event is delivered all the same.
unsigned note(uloop_fd* sock, std::uint32_t happened) {
    unsigned events = 0;
    if ((happened & (EPOLLIN | EPOLLRDHUP)) != 0) {
        events |= ULOOP_READ;
    }
    if ((happened & EPOLLOUT) != 0) {
        events |= ULOOP_WRITE;
    }
    if ((happened & EPOLLRDHUP) != 0) {
        sock->eof = true;
    }
    if ((happened & (EPOLLERR | EPOLLHUP)) != 0) {
        // Level-triggered and impossible to turn off: left in place it would keep the loop
        // spinning.
        sock->error = true;
        stop_watching(sock);
    }
    return events;
}

void fetch_batch(int wait) {
    epoll_event happened[batch_size];
    const int count = ::epoll_wait(epoll, happened, batch_size, wait);
    batch_next = 0;
    batch_end = 0;
    for (int i = 0; i < count; ++i) {
        auto* const sock = static_cast<uloop_fd*>(happened[i].data.ptr);
        if (sock == &signal_wakeup) {
            batch[batch_end++] = {sock, 0};
            continue;
        }
        const unsigned events = note(sock, happened[i].events);
        if (events != 0 || sock->error) {
            batch[batch_end++] = {sock, events};
        }
    }
}

// Serves one event, waiting at most `wait` milliseconds for one if none is left of the last batch.
void serve_one_event(int wait) {
    if (batch_next == batch_end) {
        fetch_batch(wait);
    }
    while (batch_next < batch_end) {
        const fetched_event event = batch[batch_next++];
        if (event.sock == &signal_wakeup) {
            ubox::drain_signal_wakeup();
            return;
        }
        if (event.sock != nullptr) {
            // Its last use here: the callback may free the record.
            event.sock->cb(event.sock, event.events);
            return;
        }
    }
}

// The shorter of two waits, of which a negative one has no end.
int shorter(int a, int b) {
    if (a < 0 || b < 0) {
        return a < 0 ? b : a;
    }
    return a < b ? a : b;
}

} // namespace

int uloop_init() {
    if (epoll < 0) {
        epoll = ::epoll_create1(EPOLL_CLOEXEC);
        if (epoll < 0) {
            return -1;
        }
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &signal_wakeup;
        if (!ubox::open_signal_wakeup() ||
            ::epoll_ctl(epoll, EPOLL_CTL_ADD, ubox::signal_wakeup_fd(), &event) != 0) {
            const int reason = errno;
            ubox::close_signal_wakeup();
            ::close(epoll);
            epoll = -1;
            errno = reason;
            return -1;
        }
    }
    ubox::take_signals();
    return 0;
}

int uloop_run_timeout(int timeout) {
    if (epoll < 0) {
        return -1;
    }
    __atomic_store_n(&uloop_cancelled, false, __ATOMIC_RELAXED);
    ubox::forget_ending_signal();
    ++running;
    do {
        ubox::collect_children();
        ubox::run_due_timers();
        if (cancelled() || epoll < 0) {
            break;
        }
        serve_one_event(shorter(timeout, ubox::milliseconds_to_next_timer()));
        // A callback may even have called uloop_done().
    } while (timeout < 0 && !cancelled() && epoll >= 0);
    --running;
    return ubox::last_ending_signal();
}

bool uloop_cancelling() {
    return running > 0 && cancelled();
}

void uloop_done() {
    ubox::give_signals_back();
    ubox::close_signal_wakeup();
    ubox::cancel_all_timers();
    batch_next = 0;
    batch_end = 0;
    if (epoll >= 0) {
        ::close(epoll);
        epoll = -1;
    }
}

int uloop_fd_add(uloop_fd* sock, unsigned flags) {
    if ((flags & (ULOOP_READ | ULOOP_WRITE)) == 0) {
        return uloop_fd_delete(sock);
    }
    if (watch(sock, epoll_events(flags)) != 0) {
        return -1;
    }
    if ((flags & ULOOP_BLOCKING) == 0) {
        make_non_blocking(sock->fd);
    }
    sock->registered = true;
    sock->flags = static_cast<std::uint8_t>(flags);
    sock->eof = false;
    sock->error = false;
    return 0;
}

int uloop_fd_delete(uloop_fd* sock) {
    forget_events_of(sock);
    return stop_watching(sock);
}
