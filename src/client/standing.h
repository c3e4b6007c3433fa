/// Standing operations: what is delivered again and again until the application releases its link.
#pragma once

#include "client/identity.h"
#include "client/own_link.h"
#include "client/task.h"
#include "counted.h"
#include "tarn/bus.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <system_error>

namespace tarn {

class app_side;
class loop_bus;

/// One report of a standing operation. What the fields mean is the operation's business.
struct standing_report {
    enum class kind {
        registered, ///< the outcome of a registration, in `code`
        change,     ///< delivered in any case
        item, ///< an event, a notification or a message: the oldest are dropped when many wait
    };
    kind what = kind::change;
    life_id life = life_id::none; ///< of the connection that an item arrived on
    int state = 0;
    std::uint32_t id = 0;
    std::error_code code;
    std::shared_ptr<const void> data;
};

/// A standing operation, its own link, with the queue of what has not been delivered.
///
/// The loop thread pushes reports, the application's loop delivers them: one task, in the bridge's
/// queue while there is something to deliver. The task is a transition, so that a handler that
/// throws in front of it costs no report. While cancel() runs nothing is delivered; items that
/// arrived before it are dropped.
///
/// The lock inside guards the queue only; no other is taken with it held.
class standing : public own_link {
public:
    /// The handlers are what kept() returns.
    standing(app_side& app, loop_bus& loop, const bus::options& how,
             std::shared_ptr<const void> handler, std::shared_ptr<const void> on_change = nullptr);
    ~standing() override;

    // --- the link, any thread ---

    void release() override;
    bool active() const override { return !released_; }

    // --- the loop thread ---

    /// Reports the outcome of a registration.
    void tell_registered(const std::error_code& code);

    /// The application has stopped the client: destroys the handlers.
    void drop() noexcept;

protected:
    /// Has `report` delivered. The loop thread only.
    void push(standing_report report);

    /// On the loop thread: takes part in what the bus sends, or no longer.
    virtual void begin() = 0;
    virtual void end() = 0;
    /// On the application's loop: calls a handler, which it keeps alive meanwhile.
    virtual void deliver(const standing_report& report) = 0;
    /// Instead, for an item that is dropped. Any thread.
    virtual void discard(const standing_report& /*item*/) noexcept {}
    /// Counts what is dropped for want of memory, for the application to be told.
    void note_dropped() noexcept;
    /// Owns a copy of a handler; null for an empty one.
    template <class Handler>
    static std::shared_ptr<const void> kept(const Handler& handler) {
        return handler ? make_counted<Handler>(handler) : nullptr;
    }

    /// The handlers, each to be named as what it was passed as: release() may let them go at the
    /// same time. Null when they are gone, or have never been there.
    template <class Handler>
    std::shared_ptr<const Handler> handler() const {
        return std::static_pointer_cast<const Handler>(guarded(handler_));
    }
    template <class Handler>
    std::shared_ptr<const Handler> change_handler() const {
        return std::static_pointer_cast<const Handler>(guarded(on_change_));
    }

    app_side& app_;
    loop_bus& loop_;

private:
    using queue = std::list<standing_report>;

    std::shared_ptr<const void> guarded(const std::shared_ptr<const void>& handler) const;
    class delivery;

    void deliver_all();
    bool deliver_next(life_id life);
    void put_back() noexcept;
    queue take_all() noexcept;

    const std::size_t most_;
    std::atomic<bool> released_{false};
    mutable std::mutex lock_;
    std::shared_ptr<const void> handler_; ///< the operation's own, and its second one
    std::shared_ptr<const void> on_change_;
    std::shared_ptr<const void> on_dropped_; ///< those of the options
    std::shared_ptr<const void> on_registered_;
    queue queue_;
    std::size_t items_ = 0;     ///< in the queue
    std::uint64_t dropped_ = 0; ///< since the application was notified last
    bool posted_ = false;       ///< the task is queued
    int under_way_ = 0;         ///< deliveries
    bool end_is_due_ = false;   ///< released while one was under way

public:
    loop_task<standing, &standing::begin> begin_task{*this};
    loop_task<standing, &standing::end> end_task{*this};
    transition_task<standing, &standing::deliver_all> deliver_task{*this};
};

} // namespace tarn
