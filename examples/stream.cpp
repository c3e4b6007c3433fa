// Takes events one after the other in a coroutine (C++20): prints the greetings of send_event.cpp
// and ends with the third. What arrives meanwhile waits in the stream, at most ten of them.
#include <tarn/ext/app.h>
#include <tarn/ext/stream.h>

#include <iostream>

struct greeting {
    std::string msg;
};
TARN_FIELDS(greeting, msg)

tarn::ext::task<> program(tarn::client* bus) {
    using namespace std::chrono_literals;
    tarn::ext::listen_options how;
    how.most_undelivered = 10;
    how.on_registered = [](const std::error_code& refused) {
        std::cout << (refused ? refused.message() : "listening") << std::endl;
    };
    auto events = tarn::ext::events<greeting>(*bus, "greeting.*", how);
    int count = 0;
    while (const auto event = co_await events.next()) {
        std::cout << event->id << ": " << event->data.msg << std::endl;
        co_await tarn::ext::sleep(*bus, 1s); // the loop goes on
        if (++count == 3) {
            events.close(); // and next() yields nothing
        }
    }
    std::cout << events.dropped() << " dropped" << std::endl;
}

int main() {
    tarn::ext::app app;
    return run(app, program(&app.bus()));
}
