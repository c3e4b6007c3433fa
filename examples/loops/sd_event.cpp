// A daemon on the sd_event of its thread asks the object "demo" for an echo.
#include <tarn/ext/call.h>
#include <tarn/loops/sd_event_loop.h>

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
            return static_cast<void>(sd_event_exit(event, EXIT_FAILURE));
        }
        const auto answered = [event](const tarn::ext::result<tarn::ext::reply>& answer) {
            (answer ? std::cout : std::cerr)
                << (answer ? answer->value_or("msg", std::string()) : answer.message()) << '\n';
            sd_event_exit(event, answer ? EXIT_SUCCESS : EXIT_FAILURE);
        };
        tarn::ext::call(bus, "demo", "echo", {{"msg", "hello"}}, std::chrono::seconds(5), answered);
    });
    const int status = sd_event_loop(event);
    sd_event_unref(event);
    return status;
}
