// One call after the other, written as a coroutine (C++20): waits for the bus, asks the object
// "demo" for an echo of its own echo, and pauses in between. Nothing blocks the loop meanwhile.
#include <tarn/ext/app.h>
#include <tarn/ext/await.h>

#include <iostream>

struct message {
    std::string msg;
};
TARN_FIELDS(message, msg)

// Parameters by value: they live in the coroutine, references would not.
tarn::ext::task<message> echo(tarn::client* bus, message sent) {
    using namespace std::chrono_literals;
    const auto answer = co_await tarn::ext::call<message>(*bus, "demo", "echo", sent, 5s);
    co_return answer.value(); // throws when the call has failed, or the reply has no "msg"
}

tarn::ext::task<> program(tarn::client* bus) {
    co_await tarn::ext::connected(*bus);
    // Arguments in braces are given a name: g++ 12 copies them wrongly within a co_await.
    const message hello{"hello"};
    const message first = co_await echo(bus, hello);
    std::cout << first.msg << std::endl;
    co_await tarn::ext::sleep(*bus, std::chrono::seconds(1));
    const message again{first.msg + " again"};
    const message second = co_await echo(bus, again);
    std::cout << second.msg << std::endl;
}

int main() {
    tarn::ext::app app;
    return run(app, program(&app.bus())); // what program() throws is printed and makes it 1
}
