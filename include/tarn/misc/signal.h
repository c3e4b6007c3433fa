/// signal: a list of callbacks of one signature that are all called when it is emitted.
#pragma once

#include "tarn/link.h"

#include <functional>
#include <list>
#include <memory>
#include <type_traits>
#include <utility>

namespace tarn::misc {

/// A list of callbacks (slots), called in the order in which they were connected.
///
/// Emission works on a snapshot, so slots may connect and release slots, change the signal and even
/// destroy it: a slot connected during an emission is called from the next one on, a slot released
/// during an emission is still called in it. Every emission copies every slot; signals are meant
/// for few subscribers and rare events.
///
/// No locks: the signal and the release of its links belong to one thread at a time. active() of a
/// link may be called on any thread.
template <class R, class... Args>
class signal {
public:
    signal() = default;

    /// Copies hold slots of their own: links that `other` returned do not refer to them.
    signal(const signal& other) { copy_slots(other); }

    /// Takes the slots themselves, as swap() does, and leaves `other` without any.
    signal(signal&& other) noexcept { slots_.swap(other.slots_); }

    /// Destroys the slots; their links turn inactive.
    ~signal() { clear(); }

    /// Replaces the slots by copies of `other`'s. The links of the slots replaced turn inactive,
    /// those that `other` returned keep referring to `other`'s. A signal assigned to itself is
    /// emptied.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): emptied, as documented
    signal& operator=(const signal& other) {
        clear();
        copy_slots(other);
        return *this;
    }

    /// Replaces the slots by `other`'s own and leaves `other` without any.
    signal& operator=(signal&& other) noexcept {
        clear();
        slots_.swap(other.slots_);
        return *this;
    }

    /// Exchanges the slots themselves. Their links stay active, but a link reaches its slot only
    /// through the signal it was connected to: it must not be released while the slot sits in
    /// another one. Once that other signal is destroyed, or swapped back, the link may be released.
    void swap(signal& other) noexcept { slots_.swap(other.slots_); }
    /// As a.swap(b).
    friend void swap(signal& a, signal& b) noexcept { a.swap(b); }

    /// Appends a copy of `f`. The link is active while the slot is connected; releasing it
    /// disconnects and destroys the slot at once, also during an emission.
    ///
    /// Thread: the signal's; the link must not be released on another one.
    /// Handler: the copy of `f` is called by every emission, on the thread that emits.
    utils::link connect(const std::function<R(Args...)>& f) {
        class link_ctx final : public utils::link::impl {
        public:
            link_ctx(slot_list& list, typename slot_list::iterator position)
                : list_(&list)
                , position_(position)
                , slot_(*position) {}

            void release() override {
                // Unlinked before it is destroyed: its captures may use this signal.
                const std::shared_ptr<slot> dropped = std::move(*position_);
                list_->erase(position_);
            }

            bool active() const override { return !slot_.expired(); }

        private:
            slot_list* list_;
            typename slot_list::iterator position_;
            std::weak_ptr<slot> slot_;
        };

        // Connected last, so that a slot never stays without a link when memory runs out.
        slot_list added{std::make_shared<slot>(f)};
        const auto link =
            aggregate_adapter<utils::link>(std::make_shared<link_ctx>(slots_, added.begin()));
        slots_.splice(slots_.end(), added);
        return link;
    }

    /// Emits: calls every slot, in order, each with `args`. For signals whose slots return nothing.
    ///
    /// Thread: the signal's.
    /// Errors: what a slot throws ends the emission and passes through; an empty slot throws
    /// std::bad_function_call. The signal itself is unchanged by that.
    template <class T>
    std::enable_if_t<std::is_void_v<T>> call_impl(Args... args) const {
        signal snapshot;
        snapshot = *this;
        for (const auto& s : snapshot.slots_) {
            (*s)(args...);
        }
    }

    /// The same.
    template <class T = R>
    std::enable_if_t<std::is_void_v<T>> operator()(Args... args) const {
        call_impl<T>(std::forward<Args>(args)...);
    }

private:
    using slot = std::function<R(Args...)>;
    using slot_list = std::list<std::shared_ptr<slot>>;

    void copy_slots(const signal& other) {
        for (const auto& s : other.slots_) {
            slots_.push_back(std::make_shared<slot>(*s));
        }
    }

    /// One at a time, each unlinked before it is destroyed: its captures may hold the links of
    /// other slots.
    void clear() noexcept {
        while (!slots_.empty()) {
            const std::shared_ptr<slot> dropped = std::move(slots_.front());
            slots_.pop_front();
        }
    }

    slot_list slots_;
};

} // namespace tarn::misc
