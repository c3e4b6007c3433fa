/// Links: handles with which an application observes and ends what it started, and the means by
/// which the code that starts such operations makes them.
#pragma once

#include "tarn/export.h"

#include <functional>
#include <memory>
#include <utility>

namespace tarn {

namespace utils {

/// A cancellable handle on a target: a pending call, a subscription, a wrapped handler, or anything
/// else that can be ended.
///
/// All copies refer to the same target, and copying is as cheap as copying a std::shared_ptr. A
/// link only observes: dropping it, even the last copy, leaves the target running. Ending the
/// target takes release(), or a scoped_link (RAII).
///
/// Threads. Distinct links, copies of one another included, may be used on different threads at
/// once; one link object may not be assigned while another thread uses it. On which threads
/// release() may be called is documented by the function that returns the link; the links of
/// tarn::client can be released on any thread.
///
/// The virtual functions of link (its destructor) and of link::impl are part of the binary
/// interface: their order is fixed, additions go last.
class TARN_API link {
public:
    class impl;

    /// An empty link: never active, and releasing it is a no-op.
    link() noexcept = default;

    /// Another handle on the same target. There is no move: a link passed as an rvalue keeps its
    /// own handle. assign() and assignment are what empties a source.
    link(const link& other) noexcept = default;

    /// Drops the handle, and does not end the target.
    virtual ~link();

    /// The same as assign().
    link& operator=(const link& other) noexcept;
    /// The same as assign(): leaves `other` empty.
    link& operator=(link&& other) noexcept;

    /// Whether the target is still alive. It may end at any moment, but never comes back.
    bool active() const;

    /// Whether the target is still alive: active().
    operator bool() const { return active(); }

    /// Ends the target; a no-op when it has ended already.
    ///
    /// Errors: throws std::logic_error "tarn failed to release link" when the target is still alive
    /// afterwards, which is a defect of its back end, and what the back end throws.
    void release();

    /// Becomes a handle on `other`'s target. The previous target is let go, not ended.
    void assign(const link& other) noexcept;

    /// Takes over `other`'s handle and leaves `other` empty. The previous target is let go, not
    /// ended. Assigning a link to itself this way empties it.
    void assign(link&& other) noexcept;

protected:
    /// A handle on the target that `back_end` controls, for the code that makes links: see
    /// misc::aggregate_adapter.
    explicit link(const std::shared_ptr<impl>& back_end) noexcept;

private:
    std::shared_ptr<impl> impl_;
};

/// The back end of a link, implemented by the code that offers a target. All copies of the link
/// share its ownership.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API link::impl {
public:
    impl() = default;
    impl(const impl&) = delete;
    impl& operator=(const impl&) = delete;
    virtual ~impl();

    /// Ends the target: active() must be false when this returns. Called only when active() was
    /// true a moment ago; where several threads release at once, it is called by each of them.
    virtual void release() = 0;

    /// Whether the target is alive. Once false it stays false.
    virtual bool active() const = 0;
};

/// A link that ends its target when it is destroyed (RAII). Its owner decides how long the target
/// lives, so it can be moved but not copied.
///
/// Where the target cannot be ended (see link::release), the destructor ends the process.
class [[nodiscard]] TARN_API scoped_link : public link {
public:
    /// Holds nothing.
    scoped_link() noexcept = default;

    /// Takes charge of `l`'s target. `l` stays a handle on it, also when passed as an rvalue.
    scoped_link(const link& l) noexcept;
    /// The same: `l` is not emptied.
    scoped_link(link&& l) noexcept;

    /// Takes over `other`'s target and leaves `other` empty.
    scoped_link(scoped_link&& other) noexcept;

    scoped_link(const scoped_link&) = delete;
    scoped_link& operator=(const scoped_link&) = delete;

    /// Ends the current target, then takes charge of `l`'s. When both are the same target, that is
    /// ended too. Throws what release() throws; nothing is taken then.
    scoped_link& operator=(const link& l);
    /// The same, and leaves `l` empty.
    scoped_link& operator=(link&& l);
    /// The same, and leaves `other` empty. Moving a scoped_link to itself ends its target.
    scoped_link& operator=(scoped_link&& other);

    /// Ends the target.
    ~scoped_link() override;
};

} // namespace utils

namespace misc {

/// T with its protected constructors opened, for code that makes values whose type lets
/// applications only pass them on: aggregate_adapter<utils::link>(back_end), returned as a plain
/// utils::link.
template <class T>
class aggregate_adapter : public T {
public:
    /// Passes `args` on to a constructor of T, protected ones included.
    template <class... Args>
    explicit aggregate_adapter(Args&&... args)
        : T(std::forward<Args>(args)...) {}
};

/// A link that is active as long as the object behind `owner` lives and whose release() calls
/// `releaser`. The link does not keep the object alive; it keeps the releaser.
///
/// The releaser must drop the last strong reference to the object before it returns; otherwise
/// link::release() throws std::logic_error and the link stays active. An empty owner makes a link
/// that is inactive from the start.
///
/// Thread: any.
/// Handler: `releaser` is called on the thread that releases the link, not at all once the object
/// is gone, and again if it failed before. Links released on several threads at the same time may
/// each call it, so it must tolerate being called once the object is being destroyed.
/// Errors: an empty releaser makes release() throw std::bad_function_call.
[[nodiscard]] TARN_API utils::link create_link(const std::shared_ptr<void>& owner,
                                               const std::function<void()>& releaser);

} // namespace misc

} // namespace tarn
