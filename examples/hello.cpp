// Asks the object "demo" on the bus for an echo and prints what comes back.
#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <iostream>

int main() {
    // Made before the client, so that it outlives it: every handler runs on this loop.
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    tarn::client& bus = tarn::client::get_instance(loop);

    bus.connect([&bus](const std::error_code& no_bus) {
        if (no_bus) {
            std::cerr << "cannot connect: " << no_bus.message() << '\n';
            return loop->stop();
        }
        bus.invoke(
            "demo", "echo", {{"msg", "hello"}, {"n", 42}},
            [](const std::list<tarn::blob::attr>& replies, const std::error_code& failed) {
                std::cout << (failed ? failed.message() : "answered") << '\n';
                for (const auto& reply : replies) {
                    const auto& fields = reply.get<tarn::blob::table>();
                    std::cout << fields.find("msg")->second.get<std::string>() << '\n';
                }
                loop->stop();
            },
            std::chrono::seconds(5));
    });
    loop->run();
}
