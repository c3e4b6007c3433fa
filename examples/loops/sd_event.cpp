// A daemon on the sd_event of its thread asks the object "demo" for an echo.
#include <tarn/loops/sd_event_loop.h>
#include <tarn/tarn.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

int main() {
    sd_event* event = nullptr;
    if (sd_event_default(&event) < 0) {
        return EXIT_FAILURE;
    }
    // Static, since the client lives until the process ends and needs it until then.
    static const auto loop = std::make_shared<tarn::loops::sd_event_loop>(event);
    tarn::client& bus = tarn::client::get_instance(loop);

    // Without a handler these end the loop; they have to be blocked for that.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);

    bus.connect([&](const std::error_code& no_bus) {
        if (no_bus) {
            std::cerr << "cannot connect: " << no_bus.message() << '\n';
            sd_event_exit(event, EXIT_FAILURE);
            return;
        }
        const auto answered = [event](const std::list<tarn::blob::attr>& replies,
                                      const std::error_code& failed) {
            for (const auto& reply : replies) {
                const auto& fields = reply.get<tarn::blob::table>();
                std::cout << fields.find("msg")->second.get<std::string>() << '\n';
            }
            sd_event_exit(event, failed ? EXIT_FAILURE : EXIT_SUCCESS);
        };
        bus.invoke("demo", "echo", {{"msg", "hello"}}, answered, std::chrono::seconds(5));
    });
    const int status = sd_event_loop(event);
    sd_event_unref(event);
    return status;
}
