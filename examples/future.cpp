// Futures on a worker thread: it makes two calls at once and blocks until it has both answers,
// while the main thread runs the loop, on which a future refuses to wait.
#include <tarn/ext/app.h>
#include <tarn/ext/future.h>
#include <tarn/ext/watch.h>

#include <future>
#include <iostream>

using namespace std::chrono_literals;

int work(tarn::client& bus) {
    try {
        auto first = tarn::ext::async_call(bus, "demo", "echo", {{"msg", "hello"}}, 5s);
        auto second = tarn::ext::async_call(bus, "demo", "echo", {{"msg", "world"}}, 5s);
        std::cout << "waiting" << std::endl;
        std::cout << first.get().at<std::string>("msg") << ' '; // throws when the call has failed
        std::cout << second.get().at<std::string>("msg") << std::endl;
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << "worker: " << failure.what() << std::endl;
        return 1;
    }
}

int main() {
    tarn::ext::app app;
    std::future<void> worker;
    const auto states = tarn::ext::watch(app.bus(), [&](tarn::client::state now) {
        if (now == tarn::client::state::connected && !worker.valid()) {
            worker = std::async(std::launch::async, [&app] { app.stop(work(app.bus())); });
        }
    });
    const int status = app.run();
    while (worker.valid() && worker.wait_for(10ms) != std::future_status::ready) {
        app.loop().dispatch(); // after a signal: reports a call that was made too late
    }
    return status;
}
