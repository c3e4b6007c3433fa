/// A caller and a service on plain libubus, to measure libtarn beside, and for it to talk to.
///
///   plain_peer call           makes the calls that the driver asks for
///   plain_peer serve OBJECT   publishes OBJECT with the methods "echo" and "mute"
#include "commands.h"
#include "pending_calls.h"
#include "plain_calls.h"
#include "plain_service.h"

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    using namespace tarn::bench;
    const std::string role = argc > 1 ? argv[1] : "";
    if (!(role == "call" && argc == 2) && !(role == "serve" && argc == 3)) {
        std::cerr << "plain_peer call | serve OBJECT\n";
        return 2;
    }
    uloop_init();
    ubus_context* const context = ubus_connect(nullptr);
    if (context == nullptr) {
        std::cerr << "plain_peer: no bus\n";
        return 1;
    }
    ubus_add_uloop(context);
    int status = 0;
    if (role == "serve") {
        status = plain_serve(context, argv[2]);
    } else {
        pending_calls left(context);
        answer_commands(
            {[context](const load& wanted) { return plain_calls(context, wanted).make(); },
             [&left](const std::string& object, unsigned long count) { left.make(object, count); },
             {}});
    }
    ubus_free(context);
    uloop_done();
    return status;
}
