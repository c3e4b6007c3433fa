/// The turns of epoll_loop, its wake-up channel and its timers.
#include "loop_core.h"

#include "clock.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace tarn::loops::detail {

namespace {

int checked(int result, const char* call) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), call);
    }
    return result;
}

void watch(const unique_fd& epoll, const unique_fd& source) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = source.get();
    checked(::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, source.get(), &event),
            "tarn::loops::epoll_loop: epoll_ctl");
}

class running_mark {
public:
    explicit running_mark(std::atomic<bool>& running)
        : running_(running) {
        if (running_.exchange(true)) {
            throw std::logic_error("tarn::loops::epoll_loop: already running");
        }
    }
    ~running_mark() { running_ = false; }
    running_mark(const running_mark&) = delete;
    running_mark& operator=(const running_mark&) = delete;

private:
    std::atomic<bool>& running_;
};

} // namespace

/// Ends a turn however it is left: puts back what has not run and makes the descriptors signal what
/// is still due.
class loop_core::turn_end {
public:
    turn_end(loop_core& core, task_list& left) noexcept
        : core_(core)
        , left_(left) {}
    ~turn_end() {
        const std::lock_guard<std::mutex> lock(core_.mutex_);
        core_.tasks_.splice(core_.tasks_.begin(), left_);
        if (!core_.tasks_.empty() && core_.needs_wakeup()) {
            core_.woken_ = core_.write_wakeup();
        }
        core_.program_timerfd();
    }
    turn_end(const turn_end&) = delete;
    turn_end& operator=(const turn_end&) = delete;

private:
    loop_core& core_;
    task_list& left_;
};

loop_core::loop_core()
    : epoll_(checked(::epoll_create1(EPOLL_CLOEXEC), "tarn::loops::epoll_loop: epoll_create1"))
    , eventfd_(
          checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "tarn::loops::epoll_loop: eventfd"))
    , timerfd_(checked(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK),
                       "tarn::loops::epoll_loop: timerfd_create"))
    , owner_(::getpid())
    , programmed_(never) {
    watch(epoll_, eventfd_);
    watch(epoll_, timerfd_);
}

void loop_core::close() noexcept {
    if (::getpid() != owner_) {
        // A forked child: the lock may have been copied while held. The child's copy of the loop is
        // freed with the child, or with the last of the timers.
        return;
    }
    task_list dropped;
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    dropped.swap(tasks_);
    heap_.clear();
    const std::lock_guard<std::mutex> waking(wake_mutex_);
    epoll_.close();
    eventfd_.close();
    timerfd_.close();
}

void loop_core::run() {
    const running_mark mark(running_);
    while (!take_stop()) {
        wait();
        turn(true);
    }
}

std::size_t loop_core::dispatch() {
    const running_mark mark(running_);
    return turn(false);
}

void loop_core::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
        if (!needs_wakeup()) {
            return;
        }
    }
    wake();
}

void loop_core::post(const std::function<void()>& task) {
    if (!task) {
        return;
    }
    task_list node;
    node.push_back(task);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) {
            return;
        }
        tasks_.splice(tasks_.end(), node);
        if (!needs_wakeup()) {
            return;
        }
    }
    wake();
}

void loop_core::add_timer() {
    const std::lock_guard<std::mutex> lock(mutex_);
    heap_.reserve(timers_ + 1);
    ++timers_;
}

void loop_core::remove_timer(timer_entry& entry) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    heap_.erase(entry);
    --timers_;
    heap_.give_back(timers_);
}

void loop_core::set_handler(timer_entry& entry, std::function<void()> action) {
    std::shared_ptr<const std::function<void()>> handler;
    if (action) {
        handler = std::make_shared<const std::function<void()>>(std::move(action));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) {
        return;
    }
    // The old handler is destroyed with the local variable, after the lock is released.
    entry.handler.swap(handler);
    if (entry.missed && entry.handler) {
        insert(entry, monotonic_now());
    }
}

void loop_core::arm(timer_entry& entry, std::chrono::seconds delay) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!closed_) {
        insert(entry, deadline_after(monotonic_now(), delay));
    }
}

void loop_core::disarm(timer_entry& entry) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    heap_.erase(entry);
    entry.missed = false;
}

bool loop_core::take_stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return stop_.exchange(false);
}

void loop_core::wait() const {
    std::array<epoll_event, 2> events{};
    const int count =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
    // After a signal the turn finds nothing to do, and run() waits again.
    if (count < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(),
                                "tarn::loops::epoll_loop: epoll_wait");
    }
}

std::size_t loop_core::turn(bool stoppable) {
    task_list batch;
    const turn_end end(*this, batch);
    std::chrono::nanoseconds now{};
    std::uint64_t first_new = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        clear_wakeup();
        batch.swap(tasks_);
        now = monotonic_now();
        first_new = next_order_;
    }

    std::size_t count = 0;
    const auto go_on = [this, stoppable] {
        return !(stoppable && stop_);
    };
    while (!batch.empty() && go_on()) {
        // Destroyed as soon as it has run, and also when it throws.
        task_list current;
        current.splice(current.begin(), batch, batch.begin());
        ++count;
        current.front()();
    }
    while (go_on()) {
        const auto handler = take_due(now, first_new);
        if (!handler) {
            break;
        }
        ++count;
        (*handler)();
    }
    return count;
}

std::shared_ptr<const std::function<void()>> loop_core::take_due(std::chrono::nanoseconds now,
                                                                 std::uint64_t first_new) {
    // One at a time: each handler may stop or destroy the timers that are due after it.
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!heap_.empty()) {
        timer_entry& entry = heap_.top();
        if (entry.deadline > now || entry.order >= first_new) {
            break;
        }
        heap_.erase(entry);
        if (entry.handler) {
            return entry.handler;
        }
        entry.missed = true;
    }
    return nullptr;
}

void loop_core::insert(timer_entry& entry, std::chrono::nanoseconds deadline) noexcept {
    heap_.erase(entry);
    entry.missed = false;
    entry.deadline = deadline;
    entry.order = next_order_++;
    heap_.push(entry); // add_timer() has made room
    if (deadline < programmed_) {
        program_timerfd();
    }
}

bool loop_core::needs_wakeup() noexcept {
    return !std::exchange(woken_, true);
}

void loop_core::clear_wakeup() noexcept {
    if (!woken_) {
        return;
    }
    std::uint64_t count = 0;
    ssize_t got = 0;
    do {
        got = ::read(eventfd_.get(), &count, sizeof(count));
    } while (got < 0 && errno == EINTR);
    // Nothing to read yet: a thread is about to write, and this turn has begun for another reason.
    // The turn that its write begins reads it, and sees what is posted until then.
    woken_ = got < 0;
}

void loop_core::wake() noexcept {
    if (!write_wakeup()) {
        const std::lock_guard<std::mutex> lock(mutex_);
        woken_ = false; // the next post tries again
    }
}

bool loop_core::write_wakeup() noexcept {
    const std::lock_guard<std::mutex> waking(wake_mutex_);
    if (eventfd_.get() < 0) {
        return true; // closed since: there is nobody to wake
    }
    const std::uint64_t one = 1;
    ssize_t written = 0;
    do {
        written = ::write(eventfd_.get(), &one, sizeof(one));
    } while (written < 0 && errno == EINTR);
    return written >= 0;
}

void loop_core::program_timerfd() noexcept {
    const std::chrono::nanoseconds next = heap_.empty() ? never : heap_.top().deadline;
    if (next == programmed_) {
        return;
    }
    // All zero disarms it. Setting it also takes back an expiry that was not read.
    itimerspec spec{};
    if (next != never) {
        const auto whole = std::chrono::duration_cast<std::chrono::seconds>(next);
        // Where time_t has 32 bits a far deadline is cut: an idle turn sets the rest.
        spec.it_value.tv_sec = static_cast<time_t>(
            std::min<std::chrono::seconds::rep>(whole.count(), std::numeric_limits<time_t>::max()));
        spec.it_value.tv_nsec =
            static_cast<decltype(spec.it_value.tv_nsec)>((next - whole).count());
    }
    ::timerfd_settime(timerfd_.get(), TFD_TIMER_ABSTIME, &spec, nullptr);
    programmed_ = next;
}

} // namespace tarn::loops::detail
