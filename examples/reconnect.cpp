// Keeps the connection: after each loss it connects again, with exponential back-off and jitter,
// and prints every state of the connection, the present one first. Runs until interrupted.
//
// Try: stop and start the bus daemon.
#include <tarn/ext/app.h>
#include <tarn/ext/print.h>
#include <tarn/ext/watch.h>

#include <iostream>

using namespace std::chrono_literals;

int main() {
    tarn::ext::app app;
    const auto states =
        tarn::ext::watch(app.bus(), [](tarn::client::state now) { std::cout << now << std::endl; });
    // 1 s, 2 s, 4 s ... 30 s, each shortened at random by up to a half: many programs that lost the
    // same bus do not return at the same moment.
    const auto delays = tarn::ext::backoff::exponential(1s, 30s).with_jitter();
    // What is passed to client::auto_connect(): called before each attempt, must not throw. Without
    // the message it is run_forever(delays).
    return app.run_forever([delays](long long attempt) {
        const auto delay = delays(attempt);
        std::cout << "attempt " << attempt << " in " << delay.count() << " s" << std::endl;
        return delay;
    });
}
