// A program on libuv's default loop asks the object "demo" for an echo.
#include <tarn/ext/call.h>
#include <tarn/loops/uv_loop.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

int main() {
    // Static, since the client lives until the process ends and needs it until then.
    static const auto loop = std::make_shared<tarn::loops::uv_loop>(uv_default_loop());
    tarn::client& bus = tarn::client::get_instance(loop);

    // This keeps uv_run() running, and its end ends it.
    uv_signal_t interrupt;
    uv_signal_init(uv_default_loop(), &interrupt);
    const auto quit = [](uv_signal_t* handle, int) {
        uv_signal_stop(handle);
    };
    uv_signal_start(&interrupt, quit, SIGINT);

    int status = EXIT_FAILURE;
    bus.connect([&](const std::error_code& no_bus) {
        if (no_bus) {
            std::cerr << "cannot connect: " << no_bus.message() << '\n';
            return quit(&interrupt, 0);
        }
        const auto answered = [&](const tarn::ext::result<tarn::ext::reply>& answer) {
            (answer ? std::cout : std::cerr)
                << (answer ? answer->value_or("msg", std::string()) : answer.message()) << '\n';
            status = answer ? EXIT_SUCCESS : EXIT_FAILURE;
            quit(&interrupt, 0);
        };
        tarn::ext::call(bus, "demo", "echo", {{"msg", "hello"}}, std::chrono::seconds(5), answered);
    });
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    return status;
}
