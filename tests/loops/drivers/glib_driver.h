/// Drives the adapter for GLib.
#pragma once

#include "tarn/loops/glib_loop.h"

#include "loops/drivers/driver.h"

namespace tarn::test {

class loop_driver : public driver<loops::glib_loop> {
public:
    loop_driver() { make_loop(); }
    ~loop_driver() {
        drop_loop();
        g_main_context_unref(context_);
    }

    /// In place of the adapter that there is.
    void make_loop() {
        drop_loop();
        adapter_ = std::make_unique<loops::glib_loop>(context_);
    }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        GSource* const alarm = g_timeout_source_new(static_cast<guint>(pulse.count()));
        g_source_set_callback(
            alarm, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
        g_source_attach(alarm, context_);
        const bool reached =
            step_until(done, limit, [this] { g_main_context_iteration(context_, TRUE); });
        g_source_destroy(alarm);
        g_source_unref(alarm);
        return reached;
    }

private:
    GMainContext* const context_ = g_main_context_new();
};

} // namespace tarn::test
