/// SIGINT and SIGTERM as a descriptor to wait for, for tarn::ext::app.
#pragma once

#include <cerrno>
#include <csignal>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace tarn::ext::detail {

/// Takes both signals over on the calling thread, and on the threads that it starts from now on,
/// until it is destroyed there. A signal that is ignored stays so: a shell starts background
/// processes that way, for them not to end with the one in front.
class exit_signals {
public:
    /// Throws std::system_error.
    exit_signals() {
        sigset_t taken;
        sigemptyset(&taken);
        for (const int number : {SIGINT, SIGTERM}) {
            struct sigaction action {};
            ::sigaction(number, nullptr, &action);
            if (action.sa_handler != SIG_IGN) {
                sigaddset(&taken, number);
            }
        }
        fd_ = ::signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
        if (fd_ < 0) {
            throw std::system_error(errno, std::generic_category(), "signalfd");
        }
        ::pthread_sigmask(SIG_BLOCK, &taken, &before_);
    }
    exit_signals(const exit_signals&) = delete;
    exit_signals& operator=(const exit_signals&) = delete;
    ~exit_signals() {
        while (take() != 0) { // an impatient user's second one must not end the process now
        }
        ::close(fd_);
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

    /// Readable when a signal has come.
    int fd() const noexcept { return fd_; }

    /// The number of a signal that has come, once for each; 0 when there is none.
    int take() const noexcept {
        signalfd_siginfo received{};
        return ::read(fd_, &received, sizeof(received)) == sizeof(received)
                   ? static_cast<int>(received.ssi_signo)
                   : 0;
    }

private:
    int fd_ = -1;
    sigset_t before_{};
};

} // namespace tarn::ext::detail
