/// tarn::ext::in_flight_limit: back-pressure for those who call faster than they are answered.
#pragma once

#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/event_loop.h"
#include "tarn/ext/call.h"
#include "tarn/ext/detail/decode.h"
#include "tarn/ext/detail/whole_seconds.h"
#include "tarn/link.h"

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace tarn::ext {

namespace detail {

/// A call that waits for its turn or is under way.
struct limited_call {
    enum class stage { waiting, running, over };

    std::string path;
    std::string method;
    blob::table args;
    std::chrono::seconds limit{};
    // The rest is guarded by the queue's lock.
    client::result_handler handler; ///< empty once it was called, or is not to be
    stage at = stage::waiting;
    bool starting = false; ///< is being handed to the client
    bool released = false;
    utils::link running; ///< the client's, once the call has been handed to it
};

/// The calls of one in_flight_limit. Owned by it, by the calls' links and by the handlers that the
/// client keeps; no handler is called, moved out of a call or destroyed with the lock held.
class call_queue final : public std::enable_shared_from_this<call_queue> {
public:
    using call_ptr = std::shared_ptr<limited_call>;

    call_queue(client& bus, std::size_t most)
        : bus_(bus)
        , loop_(bus.get_event_loop())
        , most_(most) {}

    /// Starts `call`, or lets it wait.
    void add(const call_ptr& call) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            // Behind those that wait, even where a place is free already.
            if (running_.size() >= most_ || !waiting_.empty()) {
                waiting_.push_back(call);
                return;
            }
            begin(call);
        }
        start(call);
    }

    /// Ends `call`: its handler is not started any more.
    void release(const call_ptr& call) {
        client::result_handler dropped;
        utils::link running;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            call->released = true;
            dropped.swap(call->handler);
            running = call->running;
            if (call->at == limited_call::stage::waiting) {
                call->at = limited_call::stage::over;
                waiting_.remove(call);
            }
        }
        running.release();
    }

    bool is_active(const call_ptr& call) const {
        const std::lock_guard<std::mutex> guard(lock_);
        return !call->released && call->at != limited_call::stage::over;
    }

    void release_all() {
        std::list<call_ptr> all;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            all.assign(running_.begin(), running_.end());
            all.splice(all.begin(), waiting_);
        }
        for (const call_ptr& call : all) {
            release(call);
        }
    }

    std::size_t running() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return running_.size();
    }

    std::size_t waiting() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return waiting_.size();
    }

private:
    /// Holds the place of a running call, and gives it back when the client lets go of the handler,
    /// be it without calling it.
    class place {
    public:
        place(std::shared_ptr<call_queue> queue, call_ptr call)
            : queue_(std::move(queue))
            , call_(std::move(call)) {}
        ~place() {
            queue_->finish(call_);
            queue_->drop_handler(call_);
        }
        place(const place&) = delete;
        place& operator=(const place&) = delete;

        /// Before the handler, which may throw.
        void end(const std::list<blob::attr>& replies, const std::error_code& status) {
            queue_->finish(call_);
            if (const auto handler = queue_->take_handler(call_)) {
                handler(replies, status);
            }
        }

    private:
        const std::shared_ptr<call_queue> queue_;
        const call_ptr call_;
    };

    /// With the lock held.
    void begin(const call_ptr& call) {
        running_.insert(call);
        call->at = limited_call::stage::running;
        call->starting = true;
    }

    /// Hands a call that has begun to the client. When that throws, the call is over and still has
    /// its handler.
    void start(const call_ptr& call) {
        std::shared_ptr<place> held;
        try {
            held = std::make_shared<place>(shared_from_this(), call);
        } catch (...) {
            finish(call);
            throw;
        }
        // When this throws, the place is given back by its end.
        const utils::link running = bus_.invoke(
            call->path, call->method, call->args,
            [held](const std::list<blob::attr>& replies, const std::error_code& status) {
                held->end(replies, status);
            },
            call->limit);
        call->args.clear(); // nobody else looks at them
        bool is_unwanted = false;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            call->starting = false;
            is_unwanted = call->released; // by another thread, which had no link yet
            if (call->at == limited_call::stage::running) {
                call->running = running;
            }
        }
        if (is_unwanted) {
            utils::link(running).release();
        }
        // `held` drops the handler if the client has dropped it meanwhile.
    }

    /// Ends a running call, once, and makes the next one start.
    void finish(const call_ptr& call) noexcept {
        utils::link running; // let go without the lock
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (call->at != limited_call::stage::running) {
                return;
            }
            call->at = limited_call::stage::over;
            running_.erase(call);
            running.assign(std::move(call->running));
            if (waiting_.empty()) {
                return;
            }
        }
        start_next_later();
    }

    client::result_handler take_handler(const call_ptr& call) {
        client::result_handler handler;
        const std::lock_guard<std::mutex> guard(lock_);
        handler.swap(call->handler);
        return handler;
    }

    void drop_handler(const call_ptr& call) {
        client::result_handler dropped;
        const std::lock_guard<std::mutex> guard(lock_);
        if (!call->starting) {
            dropped.swap(call->handler);
        }
    }

    /// By a task of the loop, since this may be inside a cancel(), a release() or a destructor.
    void start_next_later() noexcept {
        const auto loop = loop_.lock();
        if (!loop) {
            return; // nothing is delivered any more
        }
        try {
            loop->post([self = shared_from_this()] { self->start_next(); });
        } catch (...) {
            start_next_now(); // no memory for a task
        }
    }

    void start_next_now() noexcept {
        try {
            start_next();
        } catch (
            ...) { // NOLINT(bugprone-empty-catch): of a handler; there is no loop to pass it to
        }
    }

    /// Starts what there is room for. Inside itself, and on two threads at once, it leaves that to
    /// the one that is at it already.
    void start_next() {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (is_starting_next_) {
                return;
            }
            is_starting_next_ = true;
        }
        while (const call_ptr call = take_next()) {
            std::error_code failure;
            try {
                start(call);
                continue;
            } catch (const std::bad_alloc&) {
                failure = error::msg::no_memory;
            } catch (...) {
                failure = error::generic::unknown_error;
            }
            if (const auto handler = take_handler(call)) {
                try {
                    handler({}, failure);
                } catch (...) {
                    stop_starting();
                    throw; // its end has posted a task for those that wait
                }
            }
        }
    }

    /// The next call, begun; null when there is none, or no room. start_next() is over then.
    call_ptr take_next() {
        const std::lock_guard<std::mutex> guard(lock_);
        if (waiting_.empty() || running_.size() >= most_) {
            is_starting_next_ = false;
            return nullptr;
        }
        call_ptr call = waiting_.front();
        try {
            begin(call);
        } catch (...) {
            is_starting_next_ = false;
            throw;
        }
        waiting_.pop_front();
        return call;
    }

    void stop_starting() {
        const std::lock_guard<std::mutex> guard(lock_);
        is_starting_next_ = false;
    }

    client& bus_;
    const std::weak_ptr<utils::event_loop> loop_;
    const std::size_t most_;
    mutable std::mutex lock_; ///< guards what follows, and the calls
    std::set<call_ptr> running_;
    std::list<call_ptr> waiting_;
    bool is_starting_next_ = false;
};

/// What stands behind the link of a limited call.
class limited_link final : public utils::link::impl {
public:
    limited_link(std::shared_ptr<call_queue> queue, std::shared_ptr<limited_call> call)
        : queue_(std::move(queue))
        , call_(std::move(call)) {}
    void release() override { queue_->release(call_); }
    bool active() const override { return queue_->is_active(call_); }

private:
    const std::shared_ptr<call_queue> queue_;
    const std::shared_ptr<limited_call> call_;
};

} // namespace detail

/// Makes calls, of which at most a given number is under way at any time. The others wait here, in
/// their order, and start as those before them end.
///
/// A call's place is free when it has its outcome, before its handler is called (which may throw),
/// or when its link is released. Thread: any; several may use one object at once.
class in_flight_limit {
public:
    /// At most `most` calls of `bus` at a time. Throws std::invalid_argument when that is none.
    in_flight_limit(client& bus, std::size_t most)
        : queue_(std::make_shared<detail::call_queue>(bus, most)) {
        if (most == 0) {
            throw std::invalid_argument("tarn::ext::in_flight_limit: at most 0 calls");
        }
    }

    /// Ends every call that was made with it, those under way too: their handlers are not started
    /// any more, so that they may refer to what goes together with this object. One that has begun
    /// on another thread may still be running.
    ~in_flight_limit() { queue_->release_all(); }

    in_flight_limit(const in_flight_limit&) = delete;
    in_flight_limit& operator=(const in_flight_limit&) = delete;

    /// As tarn::ext::call(), with a wait before it where too many calls are under way. `limit`
    /// counts from the start of the call, not for the wait.
    ///
    /// The link is active while the call waits and while it is pending. Releasing it ends the call:
    /// one that waits is never made, and `handler` is not started any more.
    ///
    /// Handler: as that of tarn::ext::call(); a call that waited and then could not be made gets
    ///   msg::no_memory or generic::unknown_error. client::cancel() ends the calls under way; those
    ///   that wait are made afterwards, and get msg::connection_failed unless the client has been
    ///   connected again.
    /// Errors: throws what tarn::ext::call() throws.
    template <class T = detail::deduced, class Rep, class Period, class Handler>
    utils::link call(const std::string& path, const std::string& method, const blob::table& args,
                     const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
        using value = detail::wanted_t<T, Handler>;
        const auto made = std::make_shared<detail::limited_call>();
        made->path = path;
        made->method = method;
        made->args = args;
        made->limit = detail::whole_seconds(limit);
        const auto kept = detail::keep_handler<value>(std::forward<Handler>(handler));
        made->handler = [kept](const std::list<blob::attr>& replies,
                               const std::error_code& status) {
            (*kept)(detail::decode<value>(replies, status));
        };
        // First, so that a call that has started never lacks its link.
        const utils::link link = misc::aggregate_adapter<utils::link>(
            std::make_shared<detail::limited_link>(queue_, made));
        queue_->add(made);
        return link;
    }

    /// The same with arguments of any type that is written as a table.
    template <class T = detail::deduced, class Args, class Rep, class Period, class Handler>
    utils::link call(const std::string& path, const std::string& method, const Args& args,
                     const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
        return call<T>(path, method, detail::arguments(args), limit,
                       std::forward<Handler>(handler));
    }

    /// The same without arguments.
    template <class T = detail::deduced, class Rep, class Period, class Handler>
    utils::link call(const std::string& path, const std::string& method,
                     const std::chrono::duration<Rep, Period>& limit, Handler&& handler) {
        return call<T>(path, method, blob::table(), limit, std::forward<Handler>(handler));
    }

    /// How many calls are under way. It may have changed when this returns.
    std::size_t running() const { return queue_->running(); }

    /// How many calls wait. It may have changed when this returns.
    std::size_t waiting() const { return queue_->waiting(); }

private:
    const std::shared_ptr<detail::call_queue> queue_;
};

} // namespace tarn::ext
