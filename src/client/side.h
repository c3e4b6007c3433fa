/// Which of the two sides the calling thread is on, for assertions.
#pragma once

#include <cassert>

namespace tarn {

/// Whether this is the library's own thread, which alone may call libubox and libubus.
inline thread_local bool is_loop_thread = false;

inline void assert_loop_side() {
    assert(is_loop_thread);
}
inline void assert_application_side() {
    assert(!is_loop_thread);
}

} // namespace tarn
