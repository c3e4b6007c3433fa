// Follows the connection, and looks for rice each time there is one, until SIGINT or SIGTERM.
#include "stock.h"

#include <tarn/ext/app.h>
#include <tarn/ext/print.h>
#include <tarn/ext/watch.h>

#include <iostream>

using tarn::client;

void look_for_rice(client& bus) {
    tarn::ext::call(bus, "pantry", "look", {{"item", "rice"}}, std::chrono::seconds(5),
                    [](const tarn::ext::result<stock>& rice) {
                        std::cout << "rice: "
                                  << (rice ? std::to_string(rice->count) : rice.message())
                                  << std::endl;
                    });
}

int main() {
    tarn::ext::app app;
    client& bus = app.bus();
    const auto states = tarn::ext::watch(bus, [&bus](client::state now) {
        std::cout << to_string(now) << std::endl;
        if (now == client::state::connected) {
            look_for_rice(bus);
        }
    });
    return app.run_forever();
}
