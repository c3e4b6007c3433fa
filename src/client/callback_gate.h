/// The one way in for callbacks of libubus: exceptions stop here, before they reach C code.
#pragma once

#include "tarn/uloop.h"

#include <utility>

namespace tarn {

/// Runs `body` and returns its result. An exception ends the library's loop, whose run() rethrows
/// it; the callback then returns `otherwise`.
template <class Body, class Result>
Result guard_callback(Body&& body, Result otherwise) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
    return otherwise;
}

/// The same for callbacks without a result.
template <class Body>
void guard_callback(Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

} // namespace tarn
