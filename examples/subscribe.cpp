// Subscribes to the object "door" of notify.cpp, whenever it is there, until interrupted. The door
// asks before it opens; what the handler returns is the answer.
//
// Try: examples/notify & examples/subscribe & tarn call door open '{"name": "front"}'
#include <tarn/ext/app.h>
#include <tarn/ext/print.h>
#include <tarn/ext/subscribe.h>

#include <iostream>

struct door {
    std::string name;
};
TARN_FIELDS(door, name)

struct vote {
    bool open;
};
TARN_FIELDS(vote, open)

int main() {
    tarn::ext::app app;
    const auto subscription = tarn::ext::subscribe(
        app.bus(), "door",
        [](const std::string& method, const door& which) {
            std::cout << method << ' ' << which.name << std::endl;
            return vote{which.name != "cellar"}; // ignored by a notifier that does not wait
        },
        [](tarn::bus::subscription what, const std::error_code& reason) {
            // After "lost" notifications may have been missed: ask the door how it is.
            std::cout << what << ": " << reason.message() << std::endl;
        });
    return app.run_forever();
}
