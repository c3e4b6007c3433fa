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
    task_list queued;
    queued.emplace_back().swap(task);
    const std::function<void()>* const position = &queued.front();
    {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        const bool silent = !needs_wakeup();
        queue_.splice(queue_.end(), queued);
        if (silent) {
            return;
        }
        ++waking_;
    }
    try {
        wake_up(position, queued);
    } catch (...) {
        if (!queued.empty()) {
            task.swap(queued.front()); // it stays the caller's
        }
        throw;
    }
}

void uloop::set_source(std::function<void()>&& source) {
    task_list made;
    made.push_back(std::move(source));
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    source_.swap(made);
}

void uloop::post_source() {
    const std::function<void()>* position = nullptr;
    {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        if (source_.empty()) {
            return; // queued already
        }
        const bool silent = !needs_wakeup();
        queued_source_ = &source_.front();
        position = queued_source_;
        queue_.splice(queue_.end(), source_);
        if (silent) {
            return;
        }
        ++waking_;
    }
    task_list refused;
    wake_up(position, refused);
}

/// With the lock held, before a task is queued: whether the loop runs and has not been woken yet
/// for what is there.
bool uloop::needs_wakeup() const noexcept {
    return (queue_.empty() || wakeup_failed_) && !exiting_ && running_;
}

void uloop::notify() {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    // A byte that a post is about to write may fail to be written, and when the loop is to exit
    // nobody writes another.
    if (needs_wakeup() || (waking_ > 0 && !exiting_ && running_)) {
        write_wakeup();
    }
}

void uloop::write_wakeup() {
    const std::lock_guard<std::mutex> guard(wakeup_lock_);
    if (wakeup_[0] < 0) {
        return; // the run has ended meanwhile
    }
    const char wakeup = 1;
    while (::write(wakeup_[0], &wakeup, sizeof wakeup) < 0) {
        if (errno != EINTR) {
            throw system_failure(prefix_ + "Can't notify uloop: Can't write into socketpair ",
                                 ": ");
        }
    }
}

/// Wakes the loop for `task`. If that fails the task goes from the queue to `refused`, the source
/// to its place, and the exception is rethrown; not if the loop has taken the task all the same.
/// Without the lock, which the thread that wakes up takes first.
void uloop::wake_up(const std::function<void()>* task, task_list& refused) {
    try {
        write_wakeup();
        --waking_;
    } catch (...) {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        --waking_;
        bool queued = false;
        for (auto entry = queue_.cbegin(); entry != queue_.cend(); ++entry) {
            if (&*entry == task) {
                task_list& home = task == queued_source_ ? source_ : refused;
                home.splice(home.end(), queue_, entry);
                queued = true;
                break;
            }
        }
        if (!source_.empty()) {
            queued_source_ = nullptr;
        }
        wakeup_failed_ = !queue_.empty();
        if (queued) {
            throw;
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
    task_list batch;
    const std::function<void()>* source = nullptr;
    {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        if (exiting_) {
            uloop_cancelled = true;
            return;
        }
        batch.swap(queue_);
        source = queued_source_;
        wakeup_failed_ = false;
        // In the same locked step as the swap: a task posted after it finds the queue empty and
        // writes a byte of its own.
        char wakeup = 0;
        while (drain_wakeup && ::read(wakeup_[1], &wakeup, sizeof wakeup) < 0) {
            if (errno != EINTR) {
                drop_queue(batch); // the source goes back to the queue
                throw system_failure(
                    prefix_ + "Can't clean uloop notify buffer: Can't read from socketpair ", ": ");
            }
        }
    }
    try {
        run_batch(batch, source);
    } catch (...) {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        drop_queue(batch);
        throw;
    }
}

/// `source` is the source if it is in the batch: queued_source_ may be set by others meanwhile.
void uloop::run_batch(task_list& batch, const std::function<void()>* source) {
    task_list running;
    while (!batch.empty()) {
        running.splice(running.end(), batch, batch.begin());
        const std::function<void()>& task = running.front();
        if (&task != source) {
            task();
            running.clear();
            continue;
        }
        {
            // Before it runs: what is posted from now on queues it again.
            const std::lock_guard<std::recursive_mutex> guard(lock_);
            queued_source_ = nullptr;
            source_.splice(source_.end(), running);
        }
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
    run_opened([] {});
}

void uloop::run_after_others(const std::function<void()>& started) {
    {
        std::unique_lock<std::recursive_mutex> guard(lock_);
        while (running_ || exiting_) {
            exit();
            ended_.wait(guard);
        }
        open_wakeup();
    }
    run_opened(started);
}

bool uloop::runs_here() {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    return running_ && runner_ == std::this_thread::get_id();
}

void uloop::run_opened(const std::function<void()>& started) {
    try {
        run_libubox(started);
    } catch (...) {
        close_wakeup();
        throw;
    }

    task_list dropped; // destroyed outside the lock
    std::exception_ptr failure;
    bool asked_to_exit = false;
    {
        const std::lock_guard<std::recursive_mutex> guard(lock_);
        asked_to_exit = exiting_;
        close_wakeup();
        dropped.swap(queue_);
        drop_queue(dropped);
        std::swap(failure, pending_exception_);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    if (!asked_to_exit) {
        throw std::runtime_error(prefix_ + "Unexptected uloop exit");
    }
}

/// With the lock held: keeps the source, which is not dropped with the others, in the queue.
void uloop::drop_queue(task_list& dropped) noexcept {
    for (auto entry = dropped.begin(); entry != dropped.end(); ++entry) {
        if (&*entry == queued_source_) {
            queue_.splice(queue_.begin(), dropped, entry);
            return;
        }
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
    runner_ = std::this_thread::get_id();
    owner_ = ::getpid();
}

void uloop::close_wakeup() noexcept {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    running_ = false;
    exiting_ = false;
    wakeup_failed_ = false;
    {
        const std::lock_guard<std::mutex> writing(wakeup_lock_);
        ::close(wakeup_[0]);
        ::close(wakeup_[1]);
        wakeup_[0] = -1;
        wakeup_[1] = -1;
    }
    ended_.notify_all();
}

void uloop::run_libubox(const std::function<void()>& started) {
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

    uloop_cancelled = false;
    started();
    // What was posted before the loop existed has no wake-up byte.
    process_guarded(false);
    // uloop_run() clears an earlier cancellation, so after one it must not be entered: exit() may
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
    task_list dropped; // destroyed outside the lock
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    dropped.swap(queue_);
    drop_queue(dropped);
}

} // namespace tarn
