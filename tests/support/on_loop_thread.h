/// Work on the library's private thread.
#pragma once

#include "tarn/uloop.h"

#include <functional>
#include <future>
#include <memory>

namespace tarn::test {

/// Runs `work` on the loop thread and waits for it. Goes past the client, so that delivery is not
/// engaged by it.
inline void on_loop_thread(const std::function<void()>& work) {
    // Shared: the loop thread may still be inside set_value() when the wait is over.
    const auto done = std::make_shared<std::promise<void>>();
    uloop::get_instance().post([&work, done] {
        work();
        done->set_value();
    });
    done->get_future().wait();
}

} // namespace tarn::test
