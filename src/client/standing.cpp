/// The queue of a standing operation, from the loop thread to the application's loop.
#include "client/standing.h"

#include "client/app_side.h"
#include "client/counters.h"
#include "client/handover.h"
#include "client/loop_bus.h"
#include "counted.h"

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <utility>

namespace tarn {

namespace {

bool is_item(const standing_report& report) {
    return report.what == standing_report::kind::item;
}

} // namespace

standing::standing(app_side& app, loop_bus& loop, const bus::options& how,
                   std::shared_ptr<const void> handler, std::shared_ptr<const void> on_change)
    : app_(app)
    , loop_(loop)
    , most_(std::max<std::size_t>(1, how.most_undelivered))
    , handler_(std::move(handler))
    , on_change_(std::move(on_change))
    , on_dropped_(kept(how.on_dropped))
    , on_registered_(kept(how.on_registered)) {}

standing::~standing() {
    app_.counts().undelivered.subtract(items_);
}

void standing::release() {
    if (released_.exchange(true)) {
        return;
    }
    drop();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (under_way_ > 0) {
            // The bus passes on no answer once the operation has ended there, so the handler's
            // goes first.
            end_is_due_ = true;
            return;
        }
    }
    app_.bridge().post_ready(end_task);
}

/// A report has left the queue. At its end the operation ends as well if it was released meanwhile.
class standing::delivery {
public:
    /// With the lock held.
    explicit delivery(standing& operation) noexcept
        : operation_(operation) {
        ++operation_.under_way_;
    }
    ~delivery() {
        {
            const std::lock_guard<std::mutex> guard(operation_.lock_);
            if (--operation_.under_way_ > 0 || !std::exchange(operation_.end_is_due_, false)) {
                return;
            }
        }
        operation_.app_.bridge().post_ready(operation_.end_task);
    }
    delivery(const delivery&) = delete;
    delivery& operator=(const delivery&) = delete;

private:
    standing& operation_;
};

void standing::drop() noexcept {
    released_ = true;
    const queue undelivered = take_all();
    for (const standing_report& report : undelivered) {
        if (is_item(report)) {
            discard(report);
        }
    }
    // Destroyed outside the lock.
    std::array<std::shared_ptr<const void>, 4> dropped;
    const std::lock_guard<std::mutex> guard(lock_);
    dropped = {std::move(handler_), std::move(on_change_), std::move(on_dropped_),
               std::move(on_registered_)};
}

std::shared_ptr<const void> standing::guarded(const std::shared_ptr<const void>& handler) const {
    const std::lock_guard<std::mutex> guard(lock_);
    return handler;
}

standing::queue standing::take_all() noexcept {
    queue taken;
    const std::lock_guard<std::mutex> guard(lock_);
    taken.swap(queue_);
    app_.counts().undelivered.subtract(std::exchange(items_, 0));
    return taken;
}

void standing::tell_registered(const std::error_code& code) {
    standing_report report;
    report.what = standing_report::kind::registered;
    report.code = code;
    push(std::move(report));
}

void standing::push(standing_report report) {
    counters& counts = app_.counts();
    const bool item = is_item(report);
    // That of the connection, since this one may go on reading when a cancel() has begun the next.
    report.life = item ? loop_.life() : life_id::none;
    queue added;
    queue dropped;
    try {
        // What is no item must not be lost for want of memory: the application would take an
        // object for present that has gone.
        app_.bridge().reserve().cover([&] { added.push_back(report); });
    } catch (const std::bad_alloc&) {
        if (item) {
            discard(report);
        }
        note_dropped();
        return;
    }
    bool posting = false;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (released_) {
            dropped.swap(added);
        } else {
            if (item && items_ == most_) {
                const auto oldest = std::find_if(queue_.begin(), queue_.end(), is_item);
                dropped.splice(dropped.end(), queue_, oldest);
                ++dropped_;
                --items_;
                counts.dropped.add();
                counts.undelivered.subtract();
            }
            queue_.splice(queue_.end(), added);
            if (item) {
                ++items_;
                counts.undelivered.add();
                counts.note_undelivered(items_);
            }
            posting = !std::exchange(posted_, true);
        }
    }
    for (const standing_report& old : dropped) {
        if (is_item(old)) {
            discard(old);
        }
    }
    handover();
    if (posting) {
        app_.bridge().post_due_from_uloop(deliver_task);
    }
}

void standing::deliver_all() {
    std::size_t due = 0;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        posted_ = false;
        due = queue_.size();
    }
    // Not the present one, which may be newer than the drain: handlers run in that life's own.
    const life_id life = task_bridge::drained();
    try {
        while (due-- > 0 && deliver_next(life)) {}
    } catch (...) {
        put_back();
        throw;
    }
    if (life == life_id::none || app_.bridge().life() != life) {
        put_back(); // for the drain after the cancellation
    }
}

bool standing::deliver_next(life_id life) {
    std::uint64_t missed = 0;
    std::shared_ptr<const void> on_dropped;
    std::shared_ptr<const void> on_registered;
    if (life == life_id::none || app_.bridge().life() != life) {
        return false;
    }
    {
        const std::lock_guard<std::mutex> guard(lock_);
        missed = std::exchange(dropped_, 0);
        on_dropped = on_dropped_;
        on_registered = on_registered_;
    }
    if (missed != 0 && on_dropped) {
        (*static_cast<const bus::dropped_handler*>(on_dropped.get()))(missed);
    }
    queue next;
    std::optional<delivery> under_way;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (queue_.empty()) {
            return false; // released meanwhile
        }
        under_way.emplace(*this);
        next.splice(next.end(), queue_, queue_.begin());
        if (is_item(next.front())) {
            --items_;
            app_.counts().undelivered.subtract();
        }
    }
    handover();
    const standing_report& report = next.front();
    if (report.what == standing_report::kind::registered) {
        if (on_registered) {
            (*static_cast<const bus::completion_handler*>(on_registered.get()))(report.code);
        }
    } else if (is_item(report) && report.life != life) {
        app_.counts().dropped.add(); // a cancel() came between
        discard(report);
    } else {
        if (is_item(report)) {
            app_.counts().delivered.add();
        }
        deliver(report);
    }
    return true;
}

void standing::note_dropped() noexcept {
    app_.counts().dropped.add();
    const std::lock_guard<std::mutex> guard(lock_);
    ++dropped_;
}

/// Has the rest delivered later.
void standing::put_back() noexcept {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (queue_.empty() || std::exchange(posted_, true)) {
            return;
        }
    }
    app_.bridge().put_back(deliver_task);
}

} // namespace tarn
