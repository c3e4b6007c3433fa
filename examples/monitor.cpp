// Prints every message that passes the daemon until interrupted. For root only.
#include <tarn/bus.h>
#include <tarn/ext/app.h>
#include <tarn/ext/print.h>

#include <iostream>

int main() {
    tarn::ext::app app;
    tarn::bus::options how;
    how.most_undelivered = 1000; // the newest are kept
    how.on_registered = [](const std::error_code& refused) {
        std::cout << "monitor: " << (refused ? refused.message() : "ready") << std::endl;
    };
    const tarn::utils::scoped_link messages = app.bus().get_bus().monitor(
        [](const tarn::bus::message& passed) {
            const std::string kind = tarn::bus::name_of(passed.type);
            std::cout << (passed.sent ? "-> " : "<- ") << std::hex << passed.client << ' '
                      << (kind.empty() ? std::to_string(passed.type) : kind) << ' '
                      << tarn::blob::attr(passed.attributes) << std::endl;
        },
        how);
    return app.run_forever();
}
