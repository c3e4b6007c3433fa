// A method that sends several replies: invoke_each() hands each to a handler as it arrives, where
// tarn::ext::call() returns the first. Replies are not collected, so there may be any number.
#include <tarn/ext/app.h>
#include <tarn/ext/watch.h>

#include <iostream>

using tarn::client;

int main() {
    tarn::ext::app app;
    const auto each = [](const tarn::blob::attr& reply) {
        std::cout << tarn::ext::from_attr<tarn::ext::reply>(reply).at<int>("i") << std::endl;
    };
    const auto done = [&app](const std::error_code& failed) {
        if (failed) {
            app.fail("demo.twice: " + failed.message());
        } else {
            std::cout << "that was all" << std::endl;
            app.stop();
        }
    };
    const auto states = tarn::ext::watch(app.bus(), [&](client::state now) {
        if (now == client::state::connected) {
            app.bus().invoke_each("demo", "twice", {}, each, done, std::chrono::seconds(5));
        }
    });
    return app.run();
}
