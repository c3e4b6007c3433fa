// Back-pressure: of a hundred calls at most three are in flight, the others wait in a queue. A
// program that produces calls looks at waiting() to know when to produce less.
#include <tarn/ext/app.h>
#include <tarn/ext/in_flight_limit.h>
#include <tarn/ext/watch.h>

#include <iostream>

using tarn::client;

int main() {
    tarn::ext::app app;
    tarn::ext::in_flight_limit limit(app.bus(), 3);
    int answered = 0;
    int failed = 0;
    const auto count = [&](const tarn::ext::result<void>& outcome) {
        if (outcome) {
            ++answered;
        } else if (++failed == 1) {
            std::cerr << "demo.echo: " << outcome.message() << std::endl;
        }
        if (answered + failed == 100) {
            std::cout << answered << " answered, " << failed << " failed" << std::endl;
            app.stop(failed == 0 ? 0 : 1);
        }
    };
    const auto states = tarn::ext::watch(app.bus(), [&](client::state now) {
        if (now == client::state::connected) {
            for (int n = 0; n < 100; ++n) {
                // The time limit counts from the start of the call, not while it waits.
                limit.call<void>("demo", "echo", {{"n", n}}, std::chrono::seconds(5), count);
            }
            std::cout << limit.running() << " in flight, " << limit.waiting() << " waiting"
                      << std::endl;
        }
    });
    return app.run();
}
