/// The client on a uv_loop_t of libuv (Debian: libuv1-dev).
#pragma once

#include "tarn/loops/nested_loop.h"

#include <uv.h>

#include <memory>
#include <system_error>
#include <utility>

namespace tarn::loops {

/// Runs the client's handlers on a uv_loop_t that the application owns and runs.
///
/// The adapter has one handle on the loop. It does not keep uv_run() running, which so returns once
/// the application's own handles and requests are done; keep_running() changes that. Destroying the
/// adapter closes the handle, whose memory goes when the loop runs the next time: give it one more
/// turn (uv_run) before uv_loop_close(), as after any uv_close(). The loop must outlive the adapter
/// until then.
///
/// Thread: made, destroyed and asked to keep_running() on the thread that runs the loop, or while
/// none does; see nested_loop.
///
/// An exception of a handler ends the process (std::terminate), since libuv's own frames cannot
/// pass it on.
class uv_loop final : public nested_loop {
public:
    /// Watches from now on.
    /// Errors: throws std::system_error with libuv's negated code when the handle cannot be made,
    /// or a descriptor not be had, and std::bad_alloc.
    explicit uv_loop(uv_loop_t* loop) {
        auto made = std::make_unique<watch>();
        made->inner = inner();
        const int failed = uv_poll_init(loop, &made->handle, inner()->fd());
        if (failed != 0) {
            throw std::system_error(-failed, std::generic_category(),
                                    "tarn::loops::uv_loop: uv_poll_init");
        }
        // From here on its memory is libuv's until the close callback.
        watch_ = made.release();
        watch_->handle.data = watch_;
        uv_unref(as_handle());
        const int not_started = uv_poll_start(&watch_->handle, UV_READABLE, run_turn);
        if (not_started != 0) {
            uv_close(as_handle(), release);
            throw std::system_error(-not_started, std::generic_category(),
                                    "tarn::loops::uv_loop: uv_poll_start");
        }
    }

    ~uv_loop() override { uv_close(as_handle(), release); }

    /// Whether the adapter alone keeps uv_run() running. Not, at first.
    /// Thread: the one that runs the loop.
    void keep_running(bool wanted) {
        if (wanted) {
            uv_ref(as_handle());
        } else {
            uv_unref(as_handle());
        }
    }

private:
    struct watch {
        uv_poll_t handle{};
        std::weak_ptr<epoll_loop> inner;
    };

    uv_handle_t* as_handle() const noexcept {
        return reinterpret_cast<uv_handle_t*>(&watch_->handle);
    }

    static void run_turn(uv_poll_t* handle, int, int) noexcept {
        if (const auto alive = static_cast<watch*>(handle->data)->inner.lock()) {
            alive->dispatch();
        }
    }

    static void release(uv_handle_t* handle) noexcept { delete static_cast<watch*>(handle->data); }

    watch* watch_ = nullptr;
};

} // namespace tarn::loops
