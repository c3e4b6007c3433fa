/// Streams: events, notifications and the objects that come and go, taken one after the other with
/// co_await. For programs in C++20; a compiler without coroutines, or one in C++17, finds nothing
/// here.
#pragma once

#include "tarn/ext/await.h"

#if defined(__cpp_impl_coroutine)

#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/ext/detail/bus_data.h"
#include "tarn/ext/events.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/subscribe.h"
#include "tarn/link.h"

#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace tarn::ext {

namespace detail {

/// The task that waits for the next item. Owned by the handlers of the bus that will resume it, so
/// that a task whose next item can no longer come is destroyed with them.
struct stream_waiter {
    std::shared_ptr<task_run> run; ///< null while no task waits
    std::coroutine_handle<> here;
};

/// The items between the handlers of the bus, on the loop's thread, and the task, which is there as
/// well, but may be destroyed, as the stream may be closed, on any thread.
template <class Item>
class stream_core {
public:
    /// At most `most` items wait; 0 for any number.
    explicit stream_core(std::size_t most)
        : most_(most) {}

    std::shared_ptr<stream_waiter> make_waiter() {
        auto made = std::make_shared<stream_waiter>();
        waiter_ = made;
        return made;
    }

    void keep(const utils::link& link) { link_ = link; }

    void push(Item&& item) {
        std::optional<Item> dropped; // destroyed outside the lock
        stream_waiter waiting;
        {
            const std::lock_guard guard(lock_);
            if (closed_) {
                return;
            }
            items_.push_back(std::move(item));
            if (most_ != 0 && items_.size() > most_) {
                dropped.emplace(std::move(items_.front()));
                items_.pop_front();
                ++dropped_;
            }
            waiting = take_waiting();
        }
        if (waiting.run) {
            waiting.run->resume(waiting.here);
        }
    }

    void add_dropped(std::uint64_t count) {
        const std::lock_guard guard(lock_);
        dropped_ += count;
    }

    std::uint64_t dropped() const {
        const std::lock_guard guard(lock_);
        return dropped_;
    }

    /// Whether the task has to wait, which is resumed then.
    bool wait(std::shared_ptr<task_run> run, std::coroutine_handle<> here) {
        const std::lock_guard guard(lock_);
        if (closed_ || !items_.empty()) {
            return false;
        }
        if (const auto waiter = waiter_.lock()) {
            if (waiter->run) {
                throw std::logic_error("tarn::ext::stream: two tasks wait for the next item");
            }
            waiter->run = std::move(run);
            waiter->here = here;
        }
        return true; // without a waiter the client was stopped: the task ends with its last owner
    }

    /// The task does not wait any more.
    void forget(std::coroutine_handle<> here) {
        stream_waiter waiting; // both destroyed outside the lock
        std::shared_ptr<stream_waiter> waiter;
        const std::lock_guard guard(lock_);
        waiter = waiter_.lock();
        if (waiter && waiter->here == here) {
            waiting = take_waiting();
        }
    }

    /// The oldest item; none once the stream is closed.
    std::optional<Item> take() {
        const std::lock_guard guard(lock_);
        std::optional<Item> next;
        if (!items_.empty()) {
            next.emplace(std::move(items_.front()));
            items_.pop_front();
        }
        return next;
    }

    void close() {
        std::deque<Item> left; // both destroyed outside the lock
        stream_waiter waiting;
        {
            const std::lock_guard guard(lock_);
            closed_ = true;
            left.swap(items_);
            waiting = take_waiting();
        }
        link_.release();
        if (waiting.run) {
            // Any thread closes; the task goes on on the loop's.
            const auto& run = *waiting.run;
            run.post([waiting] { waiting.run->resume(waiting.here); });
        }
    }

private:
    /// With the lock held.
    stream_waiter take_waiting() {
        const auto waiter = waiter_.lock();
        return waiter ? std::exchange(*waiter, stream_waiter()) : stream_waiter();
    }

    const std::size_t most_;
    utils::link link_;        ///< not changed once the stream has been returned
    mutable std::mutex lock_; ///< guards what follows, and the waiter
    std::weak_ptr<stream_waiter> waiter_;
    std::deque<Item> items_;
    std::uint64_t dropped_ = 0;
    bool closed_ = false;
};

template <class Item>
class [[nodiscard]] next_awaitable : awaitable {
public:
    explicit next_awaitable(std::shared_ptr<stream_core<Item>> core)
        : core_(std::move(core)) {}
    ~next_awaitable() {
        if (here_) {
            core_->forget(here_);
        }
    }

    bool await_ready() const noexcept { return false; }

    template <class Promise>
    bool await_suspend(std::coroutine_handle<Promise> here) {
        const bool waits = core_->wait(run_of(here), here);
        here_ = waits ? here : std::coroutine_handle<>();
        return waits;
    }

    std::optional<Item> await_resume() {
        here_ = nullptr;
        return core_->take();
    }

private:
    const std::shared_ptr<stream_core<Item>> core_;
    std::coroutine_handle<> here_; ///< while it waits
};

} // namespace detail

/// What the bus reports to this process, item by item:
///
///     auto events = tarn::ext::events(bus, "network.*");
///     while (auto event = co_await events.next()) {
///         std::cout << event->id << '\n';
///     }
///
/// It begins with what happens after it was made, survives the end of the connection, and goes on
/// with the next one. Items wait in it until they are taken, at most as many as the options say;
/// beyond that the oldest is dropped. Destroying it, or the task that it belongs to, releases the
/// operation behind it.
///
/// Thread: next() in a task, one at a time; the others any.
template <class Item>
class [[nodiscard]] stream {
public:
    /// \cond
    explicit stream(std::shared_ptr<detail::stream_core<Item>> core)
        : core_(std::move(core)) {}
    /// \endcond
    /// Takes over the items of `other`, which may only be assigned to or destroyed afterwards.
    stream(stream&& other) noexcept = default;
    /// Exchanges the items of the two.
    stream& operator=(stream&& other) noexcept {
        std::swap(core_, other.core_);
        return *this;
    }
    ~stream() {
        if (core_) {
            core_->close();
        }
    }

    /// `co_await stream.next()` yields the next item, a std::optional<Item>, as soon as there is
    /// one; std::nullopt once the stream is closed.
    /// Errors: throws std::logic_error while another task waits for it.
    auto next() { return detail::next_awaitable<Item>(core_); }

    /// How many items have been dropped so far, since the task was behind.
    std::uint64_t dropped() const { return core_->dropped(); }

    /// Ends the stream: what waits in it is dropped, and next() yields std::nullopt from now on,
    /// also to the task that waits for it.
    void close() { core_->close(); }

private:
    std::shared_ptr<detail::stream_core<Item>> core_;
};

/// One event.
template <class T = reply>
struct event {
    std::string id; ///< such as "network.interface"
    T data;         ///< its table
};

/// One notification.
template <class T = reply>
struct notification {
    std::string method; ///< its name
    T data;             ///< its table
};

/// One object that has appeared or gone.
struct object_change {
    tarn::bus::presence what = tarn::bus::presence::appeared; ///< which of the two
    std::string path;                                         ///< the object's
    std::uint32_t id = 0;                                     ///< the object's, new each time
};

/// A stream of the events whose id matches `pattern`; see listen(). T is a reply unless it is
/// given. `how.most_undelivered` holds for the stream too. `how.on_dropped` is called for what is
/// dropped ahead of the stream, as by listen(); what the stream itself drops is counted by
/// stream::dropped() only. Thread: any. Errors: as listen().
template <class T = reply>
stream<event<T>> events(client& bus, const std::string& pattern, listen_options how = {}) {
    const auto core = std::make_shared<detail::stream_core<event<T>>>(how.most_undelivered);
    how.on_dropped = [core, on_dropped = std::move(how.on_dropped)](std::uint64_t count) {
        core->add_dropped(count);
        if (on_dropped) {
            on_dropped(count);
        }
    };
    core->keep(detail::start_listening<T>(
        bus, pattern,
        [core, waiter = core->make_waiter()](const std::string& id, T data) {
            core->push({id, std::move(data)});
        },
        how));
    return stream<event<T>>(core);
}

/// A stream of the notifications of the object at `path`; see subscribe(). Notifiers that wait for
/// an answer get success. T is a reply unless it is given. `on_change` is called for every change
/// of the subscription; `how` as for events().
/// Thread: any.
/// Errors: as subscribe().
template <class T = reply>
stream<notification<T>> notifications(client& bus, const std::string& path,
                                      const tarn::bus::subscription_handler& on_change = {},
                                      subscribe_options how = {}) {
    const auto core = std::make_shared<detail::stream_core<notification<T>>>(how.most_undelivered);
    how.on_dropped = [core, on_dropped = std::move(how.on_dropped)](std::uint64_t count) {
        core->add_dropped(count);
        if (on_dropped) {
            on_dropped(count);
        }
    };
    core->keep(detail::start_subscription<T>(
        bus, path,
        [core, waiter = core->make_waiter()](const std::string& method, T data) {
            core->push({method, std::move(data)});
        },
        on_change, how));
    return stream<notification<T>>(core);
}

/// A stream of the objects whose path matches `pattern`: those that are there, then every one that
/// appears or goes; see bus::on_object(). None is dropped.
/// Thread: any.
/// Errors: as on_object().
inline stream<object_change> object_changes(client& bus, const std::string& pattern,
                                            const tarn::bus::options& how = {}) {
    const auto core = std::make_shared<detail::stream_core<object_change>>(0);
    core->keep(bus.get_bus().on_object(
        pattern,
        [core, waiter = core->make_waiter()](tarn::bus::presence what, const std::string& path,
                                             std::uint32_t id) {
            core->push({what, path, id});
        },
        how));
    return stream<object_change>(core);
}

} // namespace tarn::ext

#endif
