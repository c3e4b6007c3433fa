/// Links: handles with which an application watches and ends what it started, and the means by
/// which the code that starts things makes them.
#pragma once

#include "tarn/export.h"

#include <functional>
#include <memory>
#include <utility>

namespace tarn {

namespace utils {

/// A handle on a thing that can be ended: a pending call, a subscription, a wrapped handler.
///
/// All copies speak of the same thing, and copying is as cheap as copying a std::shared_ptr. A link
/// only observes: dropping it, even the last copy, leaves the thing running. Ending it takes
/// release(), or a scoped_link.
///
/// Threads. Distinct links, copies of one another included, may be used on different threads at
/// once; one link object may not be assigned while another thread uses it. Where release() may be
/// called is said by whoever hands the link out; the links of tarn::client can be released on any
/// thread.
///
/// The virtual functions of link (its destructor) and of link::impl are part of the binary
/// interface: their order is fixed, additions go last.
class TARN_API link {
public:
    class impl;

    /// An empty link: never active, and releasing it does nothing.
    link() noexcept = default;

    /// Another handle on the same thing. There is no move: a link passed as an rvalue keeps its
    /// own handle. assign() and assignment are what empties a source.
    link(const link& other) noexcept = default;

    /// Drops the handle, not the thing.
    virtual ~link();

    /// The same as assign().
    link& operator=(const link& other) noexcept;
    /// The same as assign(): leaves `other` empty.
    link& operator=(link&& other) noexcept;

    /// Whether the thing is still alive. It may end at any moment, but never comes back.
    bool active() const;

    /// Whether the thing is still alive: active().
    operator bool() const { return active(); }

    /// Ends the thing; does nothing when it has ended already. Throws std::logic_error "tarn failed
    /// to release link" when the thing is still alive afterwards, which is a mistake of its back
    /// end, and whatever the back end throws.
    void release();

    /// Becomes a handle on `other`'s thing. The previous thing is let go, not ended.
    void assign(const link& other) noexcept;

    /// Takes over `other`'s handle and leaves `other` empty. The previous thing is let go, not
    /// ended. Assigning a link to itself this way empties it.
    void assign(link&& other) noexcept;

protected:
    /// A handle on the thing behind `back_end`, for the code that makes links: see
    /// misc::aggregate_adapter.
    explicit link(const std::shared_ptr<impl>& back_end) noexcept;

private:
    std::shared_ptr<impl> impl_;
};

/// What stands behind a link, implemented by whoever offers something that can be ended. It is
/// owned by all copies of the link together.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API link::impl {
public:
    impl() = default;
    impl(const impl&) = delete;
    impl& operator=(const impl&) = delete;
    virtual ~impl();

    /// Ends the thing: active() must be false when this returns. Called only while active() was
    /// true a moment ago; where several threads release at once, it is called by each of them.
    virtual void release() = 0;

    /// Whether the thing is alive. Once false it stays false.
    virtual bool active() const = 0;
};

/// A link that ends its thing when it is destroyed. Its owner is the one who decides how long the
/// thing lives, so it can be moved but not copied.
///
/// Where the thing cannot be ended (see link::release), the destructor ends the process.
class [[nodiscard]] TARN_API scoped_link : public link {
public:
    /// Holds nothing.
    scoped_link() noexcept = default;

    /// Takes charge of `l`'s thing. `l` stays a handle on it, also when passed as an rvalue.
    scoped_link(const link& l) noexcept;
    /// The same: `l` is not emptied.
    scoped_link(link&& l) noexcept;

    /// Takes over `other`'s thing and leaves `other` empty.
    scoped_link(scoped_link&& other) noexcept;

    scoped_link(const scoped_link&) = delete;
    scoped_link& operator=(const scoped_link&) = delete;

    /// Ends the current thing, then takes charge of `l`'s. When both are the same thing, that is
    /// ended too. Throws what release() throws; nothing is taken then.
    scoped_link& operator=(const link& l);
    /// The same, and leaves `l` empty.
    scoped_link& operator=(link&& l);
    /// The same, and leaves `other` empty. Moving a scoped_link to itself ends its thing.
    scoped_link& operator=(scoped_link&& other);

    /// Ends the thing.
    ~scoped_link() override;
};

} // namespace utils

namespace misc {

/// T with its protected constructors opened, for code that makes values whose type lets
/// applications only pass them on: aggregate_adapter<utils::link>(back_end), handed out as a plain
/// utils::link.
template <class T>
class aggregate_adapter : public T {
public:
    template <class... Args>
    explicit aggregate_adapter(Args&&... args)
        : T(std::forward<Args>(args)...) {}
};

/// A link that is active as long as the object behind `owner` lives and whose release() calls
/// `releaser`. The link does not keep the object alive; it keeps the releaser.
///
/// The releaser must drop the last strong reference to the object before it returns; otherwise
/// link::release() throws std::logic_error and the link stays active. It is called on the thread
/// that releases the link, not at all once the object is gone, and again if it failed before.
/// Links released on several threads at the same time may each call it, so it has to stand being
/// called once the object is going. An empty releaser makes release() throw
/// std::bad_function_call; an empty owner makes a link that is inactive from the start.
[[nodiscard]] TARN_API utils::link create_link(const std::shared_ptr<void>& owner,
                                               const std::function<void()>& releaser);

} // namespace misc

} // namespace tarn
