// Asks the object "demo" on the bus for an echo and prints what comes back.
#include <tarn/ext/app.h>

#include <iostream>

int main() {
    tarn::ext::app app;
    app.call("demo", "echo", {{"msg", "hello"}}, [](const tarn::ext::reply& answer) {
        std::cout << answer.at<std::string>("msg") << '\n';
    });
    return app.run();
}
