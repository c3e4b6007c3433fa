/// The library's own loop: libubox's, with a queue of posted tasks in front of it.
#include "tarn/uloop.h"

#include "bus.h"
#include "uloop/system_failure.h"

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tarn {

namespace {

/// Runs the queued tasks with the rule for everything that C code calls: an exception ends the loop
/// and stops here.
void process_guarded(bool drain_wakeup) noexcept {
    uloop& loop = uloop::get_instance();
    try {
        loop.process(drain_wakeup);
    } catch (...) {
        loop.exception_handler();
    }
}

void on_wakeup(uloop_fd* /*descriptor*/, unsigned int events) {
    process_guarded((events & ULOOP_READ) != 0);
}

/// libubox's loop, initialised for the life of the object.
class libubox_loop {
public:
    libubox_loop()
        : ready_(uloop_init() >= 0) {}
    ~libubox_loop() {
        if (ready_) {
            uloop_done();
        }
    }
    libubox_loop(const libubox_loop&) = delete;
    libubox_loop& operator=(const libubox_loop&) = delete;

    bool ready() const { return ready_; }

private:
    const bool ready_;
};

/// A descriptor that libubox's loop watches for input for the life of the object.
class watched_descriptor {
public:
    watched_descriptor(int descriptor, uloop_fd_handler callback) {
        record_.fd = descriptor;
        record_.cb = callback;
        watched_ = uloop_fd_add(&record_, ULOOP_READ) >= 0;
    }
    ~watched_descriptor() {
        if (watched_) {
            uloop_fd_delete(&record_);
        }
    }
    watched_descriptor(const watched_descriptor&) = delete;
    watched_descriptor& operator=(const watched_descriptor&) = delete;

    bool watched() const { return watched_; }

private:
    uloop_fd record_ = {};
    bool watched_ = false;
};

} // namespace

uloop& uloop::get_instance() {
    // The exit handlers only drop the tasks. The object itself stays: a thread that is left behind
    // in a call that never returns may still use it while the process ends.
    struct drop_tasks_at_exit {
        uloop& instance;
        ~drop_tasks_at_exit() { instance.drop_tasks(); }
    };
    static uloop& instance = *new uloop;
    static const drop_tasks_at_exit end{instance};
    return instance;
}

// The wake-up pair is set by run(), for as long as it is valid.
uloop::uloop()
    : prefix_("uloop: ")
    , owner_(::getpid()) {}

void uloop::post(const std::function<void()>& task) {
    post(std::function<void()>(task));
}

void uloop::post(std::function<void()>&& task) {
    if (!task) {
        return;
    }
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    // Before the task is there: whether the loop must be woken is read off the queue.
    notify();
    queue_.push_back(std::move(task));
}

void uloop::post_ready(ready_task&& task) {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    notify();
    queue_.splice(queue_.end(), task);
}

void uloop::notify() {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    if (!queue_.empty() || exiting_ || !running_) {
        return; // woken already, or nobody listens
    }
    const char wakeup = 1;
    while (::write(wakeup_[0], &wakeup, sizeof wakeup) < 0) {
        if (errno != EINTR) {
            throw system_failure(prefix_ + "Can't notify uloop: Can't write into socketpair ",
                                 ": ");
        }
    }
}

void uloop::exit() {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    if (running_) {
        notify();
        exiting_ = true;
    }
}

void uloop::process(bool drain_wakeup) {
    std::list<std::function<void()>> batch;
    {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        if (exiting_) {
            uloop_cancelled = true;
            return;
        }
        batch.swap(queue_);
        // In the same locked step as the swap: a task posted after it finds the queue empty and
        // writes a byte of its own.
        char wakeup = 0;
        while (drain_wakeup && ::read(wakeup_[1], &wakeup, sizeof wakeup) < 0) {
            if (errno != EINTR) {
                throw system_failure(
                    prefix_ + "Can't clean uloop notify buffer: Can't read from socketpair ", ": ");
            }
        }
    }
    while (!batch.empty()) {
        const std::function<void()> task = std::move(batch.front());
        batch.pop_front();
        task();
    }
}

void uloop::exception_handler() noexcept {
    try {
        throw;
    } catch (...) {
        std::exception_ptr replaced = std::current_exception(); // destroyed outside the lock
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        uloop_cancelled = true;
        std::swap(pending_exception_, replaced);
    }
}

void uloop::run() {
    open_wakeup();
    try {
        run_libubox();
    } catch (...) {
        close_wakeup();
        throw;
    }

    std::list<std::function<void()>> dropped; // destroyed outside the lock
    std::exception_ptr failure;
    bool asked_to_exit = false;
    {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        asked_to_exit = exiting_;
        close_wakeup();
        dropped.swap(queue_);
        std::swap(failure, pending_exception_);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    if (!asked_to_exit) {
        throw std::runtime_error(prefix_ + "Unexptected uloop exit");
    }
}

void uloop::open_wakeup() {
    std::exception_ptr forgotten; // destroyed outside the lock
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    if (running_ || exiting_) {
        throw std::runtime_error(prefix_ + "Can't run second uloop");
    }
    std::swap(forgotten, pending_exception_);
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, wakeup_) < 0) {
        throw system_failure(prefix_ + "Can't create socketpair for post ", "");
    }
    running_ = true;
    owner_ = ::getpid();
}

void uloop::close_wakeup() noexcept {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    running_ = false;
    exiting_ = false;
    ::close(wakeup_[0]);
    ::close(wakeup_[1]);
}

void uloop::run_libubox() {
    misc::unix_signal_actions signals;
    signals.set(SIGINT, SIGTERM, SIGCHLD, SIGPIPE);
    const libubox_loop loop;
    if (!loop.ready()) {
        throw std::runtime_error(prefix_ + "Can't init uloop");
    }
    signals.restore();
    const watched_descriptor wakeup(wakeup_[1], on_wakeup);
    if (!wakeup.watched()) {
        throw system_failure(prefix_ + "Can't add fd to uloop ", ":");
    }

    // What was posted before the loop was there has no wake-up byte.
    uloop_cancelled = false;
    process_guarded(false);
    // uloop_run() forgets an earlier cancellation, so after one it must not be entered: exit() may
    // have come while tasks were queued, and then no byte is there to end it.
    if (!uloop_cancelled) {
        uloop_run();
    }
}

void uloop::drop_tasks() noexcept {
    if (::getpid() != owner_) {
        // A forked child: the tasks are the parent's, and the lock may have been copied while held.
        return;
    }
    std::list<std::function<void()>> dropped; // destroyed outside the lock
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    dropped.swap(queue_);
}

} // namespace tarn
