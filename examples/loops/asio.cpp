// A program on an io_context of standalone Asio asks the object "demo" for an echo.
#include <tarn/ext/call.h>
#include <tarn/loops/asio_loop.h>

#include <asio/signal_set.hpp>

#include <csignal>
#include <cstdlib>
#include <iostream>

int main() {
    // Static, in this order: the client lives until the process ends and needs both until then.
    static asio::io_context context;
    static const auto loop = std::make_shared<tarn::loops::asio_loop>(context);
    tarn::client& bus = tarn::client::get_instance(loop);

    asio::signal_set signals(context, SIGINT, SIGTERM);
    signals.async_wait([](const std::error_code&, int) { context.stop(); });

    int status = EXIT_FAILURE;
    bus.connect([&](const std::error_code& no_bus) {
        if (no_bus) {
            std::cerr << "cannot connect: " << no_bus.message() << '\n';
            return context.stop();
        }
        const auto answered = [&](const tarn::ext::result<tarn::ext::reply>& answer) {
            (answer ? std::cout : std::cerr)
                << (answer ? answer->value_or("msg", std::string()) : answer.message()) << '\n';
            status = answer ? EXIT_SUCCESS : EXIT_FAILURE;
            context.stop();
        };
        tarn::ext::call(bus, "demo", "echo", {{"msg", "hello"}}, std::chrono::seconds(5), answered);
    });
    context.run();
    return status;
}
