/// The loop itself: descriptors, over epoll, and the rounds that serve them, the timers and the
/// signals.
///
/// Events are fetched in batches and served one a round. The batch outlives the round and nested
/// runs share it, so deleting a descriptor takes its event out of the batch.
#include <libubox/uloop.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "uloop_signals.h"
#include "uloop_timers.h"

bool uloop_cancelled = false;

namespace {

constexpr int batch_size = 10;

int epoll = -1;
int running = 0; // runs in progress, one inside the other

epoll_event batch[batch_size];
int batch_next = 0;
int batch_end = 0;

// Stands in the batch for the signals' wake-up, which is no descriptor of the application's.
uloop_fd signal_wakeup{};

bool cancelled() {
    return __atomic_load_n(&uloop_cancelled, __ATOMIC_RELAXED);
}

void forget_events_of(const uloop_fd* sock) {
    for (int i = batch_next; i < batch_end; ++i) {
        if (batch[i].data.ptr == sock) {
            batch[i].data.ptr = nullptr;
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

// Nothing of the record is used after its callback, which may have freed it.
void serve(uloop_fd* sock, std::uint32_t happened) {
    unsigned events = 0;
    if ((happened & (EPOLLIN | EPOLLRDHUP)) != 0) {
        events |= ULOOP_READ;
    }
    if ((happened & EPOLLOUT) != 0) {
        events |= ULOOP_WRITE;
    }
    // What it is watched for may have changed since the batch was fetched.
    events &= sock->flags;
    if ((happened & EPOLLRDHUP) != 0) {
        sock->eof = true;
    }
    if ((happened & (EPOLLERR | EPOLLHUP)) != 0) {
        // Level-triggered and impossible to turn off: left in place it would keep the loop
        // spinning.
        sock->error = true;
        uloop_fd_delete(sock);
    } else if (events == 0) {
        return;
    }
    sock->cb(sock, events);
}

void fetch_batch(int wait) {
    const int count = ::epoll_wait(epoll, batch, batch_size, wait);
    batch_next = 0;
    batch_end = count < 0 ? 0 : count;
}

// Serves one event, waiting at most `wait` milliseconds for one if none is left of the last batch.
void serve_one_event(int wait) {
    if (batch_next == batch_end) {
        fetch_batch(wait);
    }
    while (batch_next < batch_end) {
        const epoll_event event = batch[batch_next++];
        auto* const sock = static_cast<uloop_fd*>(event.data.ptr);
        if (sock == &signal_wakeup) {
            ubox::drain_signal_wakeup();
            return;
        }
        if (sock != nullptr) {
            serve(sock, event.events);
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
    const timeval deadline = ubox::later_by(ubox::monotonic_now(), timeout < 0 ? 0 : timeout);
    __atomic_store_n(&uloop_cancelled, false, __ATOMIC_RELAXED);
    ++running;
    bool expired = false;
    // A callback may even have called uloop_done().
    while (!expired && !cancelled() && epoll >= 0) {
        ubox::collect_children();
        ubox::run_due_timers();
        if (cancelled() || epoll < 0) {
            break;
        }
        int left = -1;
        if (timeout >= 0) {
            left = ubox::milliseconds_until(deadline, ubox::monotonic_now());
            expired = left == 0;
        }
        serve_one_event(shorter(left, ubox::milliseconds_to_next_timer()));
    }
    --running;
    return 0;
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
    if (!sock->registered) {
        return 0;
    }
    sock->registered = false;
    return ::epoll_ctl(epoll, EPOLL_CTL_DEL, sock->fd, nullptr);
}
