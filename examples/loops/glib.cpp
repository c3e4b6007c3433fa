// A program on a GMainLoop asks the object "demo" for an echo.
#include <tarn/loops/glib_loop.h>
#include <tarn/tarn.h>

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
        const auto answered = [&](const std::list<tarn::blob::attr>& replies,
                                  const std::error_code& failed) {
            for (const auto& reply : replies) {
                const auto& fields = reply.get<tarn::blob::table>();
                std::cout << fields.find("msg")->second.get<std::string>() << '\n';
            }
            status = failed ? EXIT_FAILURE : EXIT_SUCCESS;
            g_main_loop_quit(main_loop);
        };
        bus.invoke("demo", "echo", {{"msg", "hello"}}, answered, std::chrono::seconds(5));
    });
    g_main_loop_run(main_loop);
    return status;
}
