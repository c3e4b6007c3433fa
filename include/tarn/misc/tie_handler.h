/// tie_handler: a handler whose calls are dropped when the objects it was meant for are gone.
#pragma once

#include "tarn/misc/callable_traits.h"
#include "tarn/misc/shared_ptr_tracker.h"

#include <memory>
#include <type_traits>
#include <utility>

namespace tarn::misc {

/// A handler of the same signature as `handler` that calls it while all of `owners` are alive and
/// is a no-op from then on. Owners are weak or shared pointers; either way the result does not
/// keep them alive, so `handler` may capture a plain pointer to one of them.
///
/// For handlers that return nothing.
///
/// Thread: the owners are checked when the call begins; nothing holds them while `handler` runs, so
/// the thread that destroys them must be the one that runs the handler, or wait for it.
/// Errors: what `handler` throws passes through.
template <class F, class... Owners>
std::enable_if_t<is_callable<F, void>::value, typename callable_traits<F>::type>
tie_handler(const F& handler, Owners&&... owners) {
    return [kept = handler,
            tracker = shared_ptr_tracker{std::weak_ptr<void>(owners)...}](auto&&... args) mutable {
        if (tracker) {
            kept(std::forward<decltype(args)>(args)...);
        }
    };
}

} // namespace tarn::misc
