/// What the application waits for, and the links with which it can stop waiting.
#pragma once

#include "client/own_link.h"
#include "tarn/client.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace tarn {

/// Something that is pending while it is in a list: a call, or an operation whose outcome is to be
/// reported. The thread that takes it out has ended it, and no other can: so it ends once, however
/// many threads complete, expire, cancel and release at once. What it holds belongs to the thread
/// that ended it. It is its own link, which turns inactive at that moment.
///
/// Lists are guarded by the one lock of the application's side, which all functions here and in
/// pending_list need, except active().
class pending : public own_link {
public:
    bool active() const override { return listed_; }

    /// Ends it. Null when it has ended already.
    std::shared_ptr<pending> end() noexcept;

private:
    friend class pending_list;

    pending* previous_ = nullptr;
    pending* next_ = nullptr;
    std::shared_ptr<pending> kept_; ///< itself, while it is listed
    std::uint64_t number_ = 0;      ///< the order of a list
    std::atomic<bool> listed_{false};
};

/// Pending entries, the oldest first. Nothing here allocates or throws.
class pending_list {
public:
    using number = std::uint64_t;

    pending_list() noexcept;
    pending_list(const pending_list&) = delete;
    pending_list& operator=(const pending_list&) = delete;
    /// Must be empty.
    ~pending_list();

    bool empty() const noexcept;
    /// Appends `entry`, which becomes pending.
    void add(pending& entry) noexcept;
    /// The number of the newest so far. Numbers rise.
    number newest() const noexcept { return newest_; }
    /// Ends the oldest; null when there is none.
    std::shared_ptr<pending> take_oldest() noexcept;
    /// Ends the oldest for which `chosen` is true, given its number; null when there is none.
    template <class Choice>
    std::shared_ptr<pending> take_oldest(const Choice& chosen) noexcept {
        pending* entry = end_.next_;
        while (entry != &end_ && !chosen(*entry, entry->number_)) {
            entry = entry->next_;
        }
        return entry->end(); // the sentinel is never pending
    }

private:
    struct sentinel final : pending {
        void release() override {}
    };
    sentinel end_; ///< closes the ring
    number newest_ = 0;
};

} // namespace tarn
