// Sends one event, a structure, to all processes that listen to it.
//
// Try: tarn listen 'greeting.*' & examples/send_event
#include <tarn/ext/app.h>
#include <tarn/ext/events.h>
#include <tarn/ext/watch.h>

#include <iostream>

struct greeting {
    std::string msg;
    std::optional<int> count;
};
TARN_FIELDS(greeting, msg, count)

int main() {
    tarn::ext::app app;
    const auto states = tarn::ext::watch(app.bus(), [&app](tarn::client::state now) {
        if (now != tarn::client::state::connected) {
            return;
        }
        const greeting hello{"hello", 1};
        tarn::ext::send_event(app.bus(), "greeting.first", hello,
                              [&app](const tarn::ext::result<void>& sent) {
                                  if (!sent) {
                                      return app.fail("not sent: " + sent.message());
                                  }
                                  std::cout << "sent" << std::endl;
                                  app.stop();
                              });
    });
    return app.run();
}
