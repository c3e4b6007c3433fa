// Waits until the service "demo" is on the bus, and then calls it. Nothing polls: the program is
// notified when the object appears, and neither it nor the bus need be there at the start.
//
// Try: examples/wait_for & examples/demo_service
#include <tarn/ext/app.h>
#include <tarn/ext/objects.h>

#include <iostream>

using namespace std::chrono_literals;

int main() {
    tarn::ext::app app;
    const auto wait =
        tarn::ext::wait_for(app.bus(), {"demo"}, 60s, [&app](const tarn::ext::result<void>& there) {
            if (!there) {
                return app.fail("demo: " + there.message());
            }
            std::cout << "demo is there" << std::endl;
            // It may have gone again: a call copes with that in any case.
            tarn::ext::call(app.bus(), "demo", "echo", {{"msg", "hello"}}, 5s,
                            [&app](const tarn::ext::result<tarn::ext::reply>& answer) {
                                if (!answer) {
                                    return app.fail("demo.echo: " + answer.message());
                                }
                                std::cout << answer->at<std::string>("msg") << std::endl;
                                app.stop();
                            });
        });
    return app.run_forever();
}
