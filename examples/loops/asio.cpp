// A program on an io_context of standalone Asio asks the object "demo" for an echo.
#include <tarn/loops/asio_loop.h>
#include <tarn/tarn.h>

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
        const auto answered = [&](const std::list<tarn::blob::attr>& replies,
                                  const std::error_code& failed) {
            for (const auto& reply : replies) {
                const auto& fields = reply.get<tarn::blob::table>();
                std::cout << fields.find("msg")->second.get<std::string>() << '\n';
            }
            status = failed ? EXIT_FAILURE : EXIT_SUCCESS;
            context.stop();
        };
        bus.invoke("demo", "echo", {{"msg", "hello"}}, answered, std::chrono::seconds(5));
    });
    context.run();
    return status;
}
