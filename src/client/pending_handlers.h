/// The completion handlers of what is under way (connect, disconnect, add_object, del_object,
/// send).
#pragma once

#include "tarn/client.h"
#include "tarn/link.h"

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>

namespace tarn {

/// A list of completion handlers, each called at most once by whoever takes it out. Safe from any
/// thread. An entry ends under the lock, so its link turns inactive at the moment the handler is
/// taken; the handler itself is called and destroyed outside.
///
/// The links made here refer to the list, which must not move and must outlive them.
class pending_handlers {
public:
    using handler = client::completion_handler;
    /// The entries' numbers rise; none has this one.
    using number = std::uint64_t;
    static constexpr number any = std::numeric_limits<number>::max();

    /// Names one entry, also after it has ended. The ticket of an empty handler names none.
    struct ticket {
        std::weak_ptr<handler> watched;
        number no = any;
    };

    pending_handlers() = default;
    pending_handlers(const pending_handlers&) = delete;
    pending_handlers& operator=(const pending_handlers&) = delete;

    /// Appends `h`; an empty handler is not stored.
    ticket add(const handler& h);

    /// A link on the entry: active while the entry exists; releasing it drops the handler unheard.
    utils::link link_to(const ticket& t);

    /// Ends the entry and hands out its handler; empty if the entry has ended.
    handler take(const ticket& t);

    /// The newest entry's number so far.
    number newest() const;

    /// Ends the oldest entry and hands out its handler; empty when there is none left, or none that
    /// is not newer than `last`. Needs no memory.
    handler take_oldest(number last = any);

private:
    mutable std::mutex lock_; ///< guards the two below; nothing else is locked while it is held
    std::map<number, std::shared_ptr<handler>> entries_; ///< the oldest first
    number newest_ = 0;
};

} // namespace tarn
