// Three ways to end a pending call: its link, its time limit, and client::cancel(), which ends
// everything that is pending.
#include <tarn/ext/app.h>
#include <tarn/ext/watch.h>

#include <iostream>

using outcome = tarn::ext::result<void>;
using namespace std::chrono_literals;

int main() {
    tarn::ext::app app;
    // A method that answers after a minute. A limit of 0 s is none.
    const auto call_late = [&app](std::chrono::seconds limit, auto handler) {
        return tarn::ext::call<void>(app.bus(), "demo", "late", {{"ms", 60000}}, limit, handler);
    };
    const auto cancel_all = [&](const outcome& late) {
        if (late.error() != tarn::error::msg::timeout) {
            app.fail("demo.late: " + late.message());
            return;
        }
        std::cout << "time limit: " << late.message() << std::endl;
        call_late(0s, [](const outcome& cancelled) {
            std::cout << "cancel: " << cancelled.message() << std::endl;
        });
        app.bus().cancel(); // calls the handlers before it returns
        std::cout << "nothing is pending" << std::endl;
        app.stop();
    };
    const auto states = tarn::ext::watch(app.bus(), [&](tarn::client::state now) {
        if (now == tarn::client::state::connected) {
            // A scoped_link releases its call when it is destroyed.
            auto link = call_late(0s, [&app](const outcome&) { app.fail("called all the same"); });
            link.release();
            std::cout << "released: " << (link.active() ? "pending" : "no report") << std::endl;
            call_late(1s, cancel_all);
        }
    });
    return app.run();
}
