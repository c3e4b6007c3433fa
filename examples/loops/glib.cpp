// A program on a GMainLoop asks the object "demo" for an echo.
#include <tarn/ext/call.h>
#include <tarn/loops/glib_loop.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

int main() {
    static GMainLoop* const main_loop = g_main_loop_new(nullptr, FALSE);
    // Static, since the client lives until the process ends and needs it until then.
    static const auto loop = std::make_shared<tarn::loops::glib_loop>();
    tarn::client& bus = tarn::client::get_instance(loop);

    const GSourceFunc quit = [](gpointer) -> gboolean {
        g_main_loop_quit(main_loop);
        return G_SOURCE_CONTINUE;
    };
    g_unix_signal_add(SIGINT, quit, nullptr);
    g_unix_signal_add(SIGTERM, quit, nullptr);

    int status = EXIT_FAILURE;
    bus.connect([&](const std::error_code& no_bus) {
        if (no_bus) {
            std::cerr << "cannot connect: " << no_bus.message() << '\n';
            return g_main_loop_quit(main_loop);
        }
        const auto answered = [&](const tarn::ext::result<tarn::ext::reply>& answer) {
            (answer ? std::cout : std::cerr)
                << (answer ? answer->value_or("msg", std::string()) : answer.message()) << '\n';
            status = answer ? EXIT_SUCCESS : EXIT_FAILURE;
            g_main_loop_quit(main_loop);
        };
        tarn::ext::call(bus, "demo", "echo", {{"msg", "hello"}}, std::chrono::seconds(5), answered);
    });
    g_main_loop_run(main_loop);
    return status;
}
