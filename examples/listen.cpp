// Prints every event whose id matches the pattern (all without one) until interrupted. It goes on
// when the bus was restarted; events of the time in between are lost.
//
// Try: examples/listen 'greeting*' & examples/send_event
#include <tarn/ext/app.h>
#include <tarn/ext/events.h>
#include <tarn/ext/print.h>

#include <iostream>

int main(int argc, char** argv) {
    tarn::ext::app app;
    tarn::ext::listen_options how;
    // The outcome of each registration: one for every connection.
    how.on_registered = [](const std::error_code& refused) {
        std::cout << (refused ? refused.message() : "listening") << std::endl;
    };
    how.on_dropped = [](std::uint64_t count) {
        std::cout << count << " events dropped: too slow" << std::endl;
    };
    const auto events = tarn::ext::listen(
        app.bus(), argc > 1 ? argv[1] : "*",
        [](const std::string& id, const tarn::ext::reply& data) {
            std::cout << id << ' ' << tarn::blob::attr(data.fields()) << std::endl;
        },
        how);
    return app.run_forever();
}
