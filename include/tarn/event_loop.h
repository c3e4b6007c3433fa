/// The interface of the application's own event loop, which the application implements (or takes
/// ready-made from tarn::loops) and passes to the client: every handler of the client runs there.
#pragma once

#include "tarn/export.h"

#include <chrono>
#include <functional>
#include <memory>

namespace tarn::utils {

/// An event loop of the application.
///
/// The client holds it by a weak pointer only. It must outlive every call of the client's
/// interface and stay alive while bus traffic can still arrive: when the private thread of the
/// library has a result to deliver and the loop is gone, the process ends (the result cannot be
/// reported).
///
/// What an implementation must guarantee:
/// - post() and create_timer() are called from any thread, several at once, including the private
///   thread of the library;
/// - post() is called with a lock of the library held, so it must never run the task inside the
///   call, nor wait for one to have run;
/// - tasks run in the order in which they were posted, each exactly once, on one thread at a time;
/// - a task may post, create, arm, stop and destroy timers; a task that was run or dropped is
///   destroyed without a lock of the loop held, since its destructor may call back into the loop,
///   and no lock of the loop is held while a task or a timer's handler runs;
/// - neither tasks nor timers starve the other, and a handler that is replaced or whose timer is
///   destroyed while it runs lives until it returns;
/// - all operations of a timer, its destructor included, are called from any thread.
///
/// The order of the virtual functions is part of the binary interface: additions go last.
class TARN_API event_loop {
public:
    /// A one-shot timer of the loop, idle when made. It is owned through the std::shared_ptr that
    /// create_timer() returned: when the last owner lets it go it is disarmed, and its handler is
    /// not started any more. The last owner may let it go from inside the timer's own handler.
    /// A timer may outlive its loop; its operations are then no-ops.
    class TARN_API timer {
    public:
        virtual ~timer() = default;

        /// Sets what runs on the loop's thread when the timer expires, replacing what was set.
        /// May come after set_timeout(): a timer that expires before it has a handler runs the
        /// handler (on the loop's thread, never inside this call) as soon as it is given one.
        virtual void set_handler(std::function<void()> action) = 0;

        /// Arms the timer, or arms it anew, to expire once after `delay`. A delay of zero or less
        /// expires at the loop's next turn, never inside this call. The largest delay
        /// (std::chrono::seconds::max()) means practically never; it must not wrap around.
        virtual void set_timeout(const std::chrono::seconds& delay) = 0;

        /// Disarms the timer. Called on the loop's thread, the handler does not run afterwards
        /// unless the timer is armed again. Called on another thread, a handler that the loop has
        /// already chosen to run may still start, and one that has begun may still be running, when
        /// this returns. The same holds for the destructor.
        virtual void stop() = 0;
    };

    virtual ~event_loop() = default;

    /// Queues `task`.
    ///
    /// Thread: any, with a lock of the library held.
    /// Handler: `task` runs once, later, on the loop's thread, in posting order, never inside this
    /// call.
    virtual void post(const std::function<void()>& task) = 0;

    /// A new, idle one-shot timer of this loop; never null.
    ///
    /// Thread: any.
    virtual std::shared_ptr<timer> create_timer() = 0;
};

} // namespace tarn::utils
