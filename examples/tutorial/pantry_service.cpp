// Publishes the object "pantry" until SIGINT or SIGTERM.
#include "pantry.h"

#include <tarn/ext/app.h>

#include <iostream>

int main() {
    tarn::ext::app app;
    const pantry shelf(app.bus(), [](const std::error_code& failed) {
        std::cout << "pantry: " << (failed ? failed.message() : "ready") << std::endl;
    });
    return app.run_forever();
}
