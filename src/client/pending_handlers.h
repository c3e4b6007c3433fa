/// The completion handlers of operations in flight (add_object, del_object, send).
#pragma once

#include "tarn/client.h"
#include "tarn/link.h"

#include <list>
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

    /// Names one entry, for as long as it exists. The ticket of an empty handler names none.
    struct ticket {
        std::weak_ptr<handler> watched;
        std::list<std::shared_ptr<handler>>::iterator position;
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

    /// Ends the oldest entry and hands out its handler; empty when there is none left.
    handler take_oldest();

private:
    std::mutex lock_; ///< guards handlers_; nothing else is locked while it is held
    std::list<std::shared_ptr<handler>> handlers_;
};

} // namespace tarn
