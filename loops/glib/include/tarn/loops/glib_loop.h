/// The client on a GMainContext of GLib, which GTK and GStreamer programs run (Debian:
/// libglib2.0-dev).
#pragma once

#include "tarn/loops/nested_loop.h"

#include <glib-unix.h>
#include <glib.h>

#include <memory>

namespace tarn::loops {

/// Runs the client's handlers on a GMainContext that the application iterates, by a GMainLoop for
/// instance.
///
/// The adapter keeps a reference to the context, and may be made and destroyed on any thread as
/// long as none iterates the context meanwhile; see nested_loop. While a handler runs a nested
/// GMainLoop, the handlers behind it wait until that returns.
///
/// An exception of a handler ends the process (std::terminate), since GLib's own frames cannot pass
/// it on.
class glib_loop final : public nested_loop {
public:
    /// Watches from now on. A null `context` is the default one of the process.
    /// Errors: throws std::system_error when a descriptor cannot be had, and std::bad_alloc.
    explicit glib_loop(GMainContext* context = nullptr, int priority = G_PRIORITY_DEFAULT) {
        auto held = std::make_unique<std::weak_ptr<epoll_loop>>(inner());
        source_ = g_unix_fd_source_new(inner()->fd(), G_IO_IN);
        g_source_set_priority(source_, priority);
        const GUnixFDSourceFunc callback = run_turn;
        g_source_set_callback(source_, G_SOURCE_FUNC(callback), held.release(), release);
        g_source_attach(source_, context);
    }

    ~glib_loop() override {
        g_source_destroy(source_);
        g_source_unref(source_);
    }

private:
    static gboolean run_turn(gint, GIOCondition, gpointer held) noexcept {
        if (const auto alive = static_cast<std::weak_ptr<epoll_loop>*>(held)->lock()) {
            alive->dispatch();
        }
        return G_SOURCE_CONTINUE;
    }

    static void release(gpointer held) noexcept {
        delete static_cast<std::weak_ptr<epoll_loop>*>(held);
    }

    GSource* source_ = nullptr;
};

} // namespace tarn::loops
