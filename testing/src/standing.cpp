/// The queue of a standing operation of the fake bus.
#include "standing.h"

#include "transfer.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarn::testing {

standing::standing(std::weak_ptr<utils::event_loop> loop, kind sort_of, std::string what,
                   bool wants_to_answer, standing_handlers handlers)
    : sort(sort_of)
    , subject(std::move(what))
    , answers(wants_to_answer)
    , loop_(std::move(loop))
    , handlers_(std::make_shared<const standing_handlers>(std::move(handlers))) {}

void standing::add(report next) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!handlers_) {
            return;
        }
        entries_.push_back({std::move(next)});
    }
    post();
}

void standing::add_limited(report next, std::function<void()> dropped) {
    std::optional<entry> oldest;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!handlers_) {
            return;
        }
        const std::size_t most = std::max<std::size_t>(handlers_->how.most_undelivered, 1);
        entries_.push_back({std::move(next), true, std::move(dropped)});
        if (++limited_ > most) {
            const auto found = std::find_if(entries_.begin(), entries_.end(),
                                            [](const entry& each) { return each.limited; });
            oldest.emplace(std::move(*found));
            entries_.erase(found);
            --limited_;
            ++dropped_;
        }
    }
    if (oldest && oldest->dropped) {
        oldest->dropped();
    }
    post();
}

void standing::add_change(const std::string& key, std::optional<std::uint32_t> id, report next) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (id) {
            present_[key] = *id;
        } else {
            present_.erase(key);
        }
    }
    add(std::move(next));
}

std::map<std::string, std::uint32_t> standing::present() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return present_;
}

void standing::drop_limited() {
    std::deque<entry> dropped; // destroyed outside the lock
    const std::lock_guard<std::mutex> guard(lock_);
    const auto first = std::stable_partition(entries_.begin(), entries_.end(),
                                             [](const entry& each) { return !each.limited; });
    std::move(first, entries_.end(), std::back_inserter(dropped));
    entries_.erase(first, entries_.end());
    limited_ = 0;
}

/// Every report has a task of its own, so that those behind one that throws are delivered.
void standing::post() {
    existing_loop(loop_)->post([self = shared_from_this()] { self->deliver_one(); });
}

void standing::deliver_one() {
    std::shared_ptr<const standing_handlers> handlers;
    std::uint64_t dropped = 0;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!handlers_ || entries_.empty()) {
            return;
        }
        handlers = handlers_;
        std::swap(dropped, dropped_);
    }
    if (dropped != 0 && handlers->how.on_dropped) {
        // When it throws, the report is delivered by the task of one that was dropped.
        handlers->how.on_dropped(dropped);
    }
    entry next;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!handlers_ || entries_.empty()) {
            return; // released, or cancelled, in on_dropped
        }
        next = std::move(entries_.front());
        entries_.pop_front();
        limited_ -= next.limited ? 1 : 0;
    }
    next.deliver(*handlers);
}

void standing::release() {
    std::shared_ptr<const standing_handlers> ended; // both destroyed outside the lock
    std::deque<entry> dropped;
    const std::lock_guard<std::mutex> guard(lock_);
    ended.swap(handlers_);
    dropped.swap(entries_);
    limited_ = 0;
}

bool standing::active() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return handlers_ != nullptr;
}

} // namespace tarn::testing
