/// A caller and a service on sdbus-c++, to measure libtarn beside.
///
///   sdbus_peer ADDRESS call           makes the calls that the driver asks for
///   sdbus_peer ADDRESS serve OBJECT   owns the name OBJECT, with the method "echo"
#include "commands.h"

#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <sdbus-c++/sdbus-c++.h>
#include <string>

namespace {

using namespace tarn::bench;

const std::string path = "/bench";
const std::string interface = "bench.Echo";

/// Asynchronous calls whose handlers run on this thread. The loop serves nothing else, so no thread
/// has to be woken.
class calls {
public:
    calls(sdbus::IConnection& connection, const load& wanted)
        : connection_(connection)
        , proxy_(sdbus::createProxy(connection, wanted.object, path))
        , wanted_(wanted) {}

    unsigned long make() {
        for (unsigned long i = 0; i < wanted_.window && started_ != wanted_.calls; ++i) {
            start_one();
        }
        connection_.enterEventLoop();
        return answered_;
    }

private:
    void start_one() {
        const auto n = static_cast<std::uint32_t>(++started_);
        proxy_->callMethodAsync("echo")
            .onInterface(interface)
            .withTimeout(std::numeric_limits<std::uint64_t>::max()) // none
            .withArguments(n)
            .uponReplyInvoke([this, n](const sdbus::Error* failure, std::uint32_t answer) {
                answered_ += failure == nullptr && answer == n ? 1 : 0;
                ++ended_;
                if (started_ != wanted_.calls) {
                    start_one();
                } else if (ended_ == started_) {
                    connection_.leaveEventLoop();
                }
            });
    }

    sdbus::IConnection& connection_;
    const std::unique_ptr<sdbus::IProxy> proxy_;
    const load wanted_;
    unsigned long started_ = 0;
    unsigned long ended_ = 0;
    unsigned long answered_ = 0;
};

void serve(sdbus::IConnection& connection, const std::string& name) {
    const auto object = sdbus::createObject(connection, path);
    object->registerMethod("echo").onInterface(interface).implementedAs(
        [](std::uint32_t n) { return n; });
    object->finishRegistration();
    connection.requestName(name);
    connection.enterEventLoopAsync();
    answer_commands({});
    connection.leaveEventLoop();
}

} // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 2 ? argv[2] : "";
    if (!(role == "call" && argc == 3) && !(role == "serve" && argc == 4)) {
        std::cerr << "sdbus_peer ADDRESS call | serve OBJECT\n";
        return 2;
    }
    try {
        const auto connection = sdbus::createSessionBusConnectionWithAddress(argv[1]);
        if (role == "serve") {
            serve(*connection, argv[3]);
        } else {
            answer_commands(
                {[&](const load& wanted) { return calls(*connection, wanted).make(); }, {}, {}});
        }
    } catch (const sdbus::Error& failure) {
        std::cerr << "sdbus_peer: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
