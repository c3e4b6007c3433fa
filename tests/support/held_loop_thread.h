/// A private thread that does nothing for a while.
#pragma once

#include "tarn/uloop.h"

#include <future>

namespace tarn::test {

/// Holds the private thread while it lives.
class held_loop_thread {
public:
    held_loop_thread() {
        std::promise<void> reached;
        uloop::get_instance().post([&reached, over = over_.get_future().share()] {
            reached.set_value();
            over.wait();
        });
        reached.get_future().wait();
    }
    ~held_loop_thread() { over_.set_value(); }
    held_loop_thread(const held_loop_thread&) = delete;
    held_loop_thread& operator=(const held_loop_thread&) = delete;

private:
    std::promise<void> over_;
};

} // namespace tarn::test
