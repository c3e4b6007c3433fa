/// The four signals of the process that uloop takes while their disposition is the default.
#include "uloop_signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "headers.h"

bool uloop_handle_sigchld = true;

namespace {

constexpr int handled_signals[] = {SIGINT, SIGTERM, SIGCHLD};

std::atomic<int> wakeup_fd{-1};
std::atomic<int> handlers_running{0};
std::atomic<bool> child_has_ended{false};
std::atomic<int> ending_signal{0};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the signal handler must not meet a lock");

void on_signal(int number) {
    const int saved_errno = errno;
    handlers_running.fetch_add(1);
    if (number == SIGCHLD) {
        child_has_ended.store(true);
    } else {
        ending_signal.store(number);
        __atomic_store_n(&uloop_cancelled, true, __ATOMIC_RELAXED);
    }
    const int fd = wakeup_fd.load();
    if (fd >= 0) {
        const std::uint64_t one = 1;
        // It can only fail because the counter is full, and then the descriptor is readable.
        [[maybe_unused]] const ssize_t written = ::write(fd, &one, sizeof one);
    }
    handlers_running.fetch_sub(1);
    errno = saved_errno;
}

// Sets the disposition to `to`, but only if it is `from`.
void replace(int number, void (*from)(int), void (*to)(int)) {
    struct sigaction current {};
    if (::sigaction(number, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
        current.sa_handler == from) {
        struct sigaction next {};
        next.sa_handler = to;
        next.sa_flags = to == on_signal ? SA_RESTART : 0;
        ::sigaction(number, &next, nullptr);
    }
}

} // namespace

bool ubox::open_signal_wakeup() {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wakeup_fd.store(fd);
    return fd >= 0;
}

int ubox::signal_wakeup_fd() {
    return wakeup_fd.load();
}

void ubox::drain_signal_wakeup() {
    std::uint64_t count;
    [[maybe_unused]] const ssize_t got = ::read(wakeup_fd.load(), &count, sizeof count);
}

void ubox::close_signal_wakeup() {
    const int fd = wakeup_fd.exchange(-1);
    // A handler on another thread may be about to write: were the descriptor closed before, its
    // number could belong to another file by then.
    while (handlers_running.load() != 0) {
        ::sched_yield();
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

void ubox::take_signals() {
    for (const int number : handled_signals) {
        if (number != SIGCHLD || uloop_handle_sigchld) {
            replace(number, SIG_DFL, on_signal);
        }
    }
    replace(SIGPIPE, SIG_DFL, SIG_IGN);
}

void ubox::give_signals_back() {
    // A SIGPIPE ignored by uloop cannot be distinguished from one that the application ignores.
    for (const int number : handled_signals) {
        replace(number, on_signal, SIG_DFL);
    }
}

void ubox::forget_ending_signal() {
    ending_signal.store(0);
}

int ubox::last_ending_signal() {
    return ending_signal.load();
}

void ubox::collect_children() {
    if (!child_has_ended.exchange(false)) {
        return;
    }
    pid_t ended;
    do {
        ended = ::waitpid(-1, nullptr, WNOHANG);
    } while (ended > 0 || (ended < 0 && errno == EINTR));
}
