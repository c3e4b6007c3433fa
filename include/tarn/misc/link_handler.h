/// link_handler: a handler together with a link that disables it.
#pragma once

#include "tarn/link.h"
#include "tarn/misc/callable_traits.h"
#include "tarn/misc/tie_handler.h"

#include <memory>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>

namespace tarn::misc {

namespace linkhandlerdetail {

/// The parts that link_handler() puts together: the wrapped handler, a weak reference to the place
/// where the user's handler is kept, and the link. Function is the std::function to wrap it in.
/// Each call runs a copy of the handler, which `once` takes out first; once it is gone a call does
/// nothing.
template <class Function, class F>
std::tuple<Function, std::weak_ptr<void>, utils::link> wrap_handler(const F& handler, bool once) {
    class link_ctx final : public utils::link::impl {
    public:
        explicit link_ctx(const F& handler_to_keep)
            : handler_(std::make_shared<F>(handler_to_keep)) {}

        void release() override { take(); }

        bool active() const override { return get() != nullptr; }

        std::shared_ptr<F> get() const {
            const std::lock_guard<std::mutex> guard(lock_);
            return handler_;
        }

        std::shared_ptr<F> take() {
            const std::lock_guard<std::mutex> guard(lock_);
            return std::move(handler_);
        }

    private:
        /// Guards handler_, since a link may be released on one thread while another calls the
        /// handler. Held only to read or empty the pointer: the user's handler is copied, called
        /// and destroyed without it.
        mutable std::mutex lock_;
        std::shared_ptr<F> handler_;
    };

    const auto ctx = std::make_shared<link_ctx>(handler);
    const utils::link l = aggregate_adapter<utils::link>(ctx);
    // Shared by all copies of the wrapped handler: the last one destroys the user's handler.
    const auto guard = std::make_shared<utils::scoped_link>(l);
    return {[ctx, once, guard](auto&&... args) {
                std::shared_ptr<F> kept = ctx->get();
                if (!kept) {
                    return; // released since the caller looked
                }
                F copy(*kept); // first, so that a copy that fails has used nothing up
                // Before the call: the place must not outlive a release that comes during it.
                kept.reset();
                if (once && !ctx->take()) {
                    return; // another call, or a release, came in between
                }
                copy(std::forward<decltype(args)>(args)...);
            },
            ctx->get(), l};
}

} // namespace linkhandlerdetail

/// A handler that calls a copy of `handler`, and a link on it. Releasing the link disables
/// `handler` and destroys it: calls are no-ops from then on, though one that has already begun runs
/// to its end. The link is active until it is released, until every copy of the returned handler is
/// destroyed, or, with `once`, until the first call, before `handler` is entered.
///
/// Thread: the returned handler may be called, copied and destroyed on one thread while the link is
/// released on another; release() does not throw and does not wait for a call.
/// Handler: every call runs a fresh copy of `handler`. No lock is held while `handler` is called or
/// destroyed.
/// Errors: what `handler` throws passes through, and what making the copy throws too: the handler
/// then has not run and is still enabled. An empty std::function throws std::bad_function_call when
/// called.
template <class F>
[[nodiscard]] std::enable_if_t<is_callable<F, void>::value,
                               std::pair<typename callable_traits<F>::type, utils::link>>
link_handler(const F& handler, bool once) {
    using function = typename callable_traits<F>::type;
    auto parts = linkhandlerdetail::wrap_handler<function, F>(handler, once);
    return {tie_handler(std::get<0>(parts), std::get<1>(parts)), std::get<2>(parts)};
}

} // namespace tarn::misc
