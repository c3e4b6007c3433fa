/// shared_ptr_tracker: observes objects without owning them and reports whether all of them are
/// still alive.
#pragma once

#include "tarn/export.h"

#include <atomic>
#include <list>
#include <memory>
#include <utility>

namespace tarn::misc {

/// Watches any number of objects held by std::shared_ptr. It expires for good when the first of
/// them is found gone. It never keeps an object alive.
///
/// One tracker may be queried on several threads at once; add() and assignment need the tracker to
/// themselves.
class TARN_API shared_ptr_tracker {
public:
    /// Watches nothing, and so never expires until something is added.
    shared_ptr_tracker() = default;

    /// Watches the objects behind `p` and `more` (weak or shared pointers). An empty pointer counts
    /// as an object that is gone.
    template <class... Ptrs>
    shared_ptr_tracker(const std::weak_ptr<void>& p, Ptrs&&... more) {
        add(p, std::forward<Ptrs>(more)...);
    }

    /// A copy watches the same objects, and has expired if the original was found expired.
    shared_ptr_tracker(const shared_ptr_tracker& other);
    /// Watches from now on what `other` watches, and nothing else; expired if `other` was found so.
    shared_ptr_tracker& operator=(const shared_ptr_tracker& other);
    ~shared_ptr_tracker() = default;

    /// Watches further objects, in this order.
    template <class... Ptrs>
    void add(const std::weak_ptr<void>& p, Ptrs&&... more) {
        ptrs_.push_back(p);
        add(std::forward<Ptrs>(more)...);
    }
    /// Nothing to add.
    void add() const {}

    /// Whether an object is gone.
    bool expired() const;

    /// Whether all objects are alive: !expired().
    operator bool() const { return !expired(); }

private:
    /// Set the first time an object is found gone, so that the rest need not be looked at again.
    /// Atomic because a handler's wrapper may be called on two threads at once.
    mutable std::atomic<bool> expired_{false};
    std::list<std::weak_ptr<void>> ptrs_;
};

} // namespace tarn::misc
