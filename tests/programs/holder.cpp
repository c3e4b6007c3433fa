/// A service on libtarn that answers when it is told to, for tests of slow readers. It publishes
/// the object "holder":
///
///   echo {...}                answers with its own arguments
///   hold {"bytes": uint32}    keeps the call until "release"
///   release                   answers every call that is kept, in their order, each with a reply
///   of
///                             as many bytes, and then itself
///
/// Prints "holder: ready" once other clients can see the object, and serves until it is killed.
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/loops/epoll_loop.h"

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

namespace {

using context = std::shared_ptr<tarn::client::exchange_ctx>;

std::vector<context>& held() {
    static auto& contexts = *new std::vector<context>;
    return contexts;
}

void echo(const context& call) {
    call->send(std::move(call->args), {});
}

void hold(const context& call) {
    held().push_back(call);
}

void release(const context& /*itself*/) {
    for (const context& call : held()) {
        const auto bytes = call->args.find("bytes")->second.get<std::uint32_t>();
        call->send({{"data", tarn::blob::attr(std::string(bytes, 'x'))}}, {});
        call->respond(tarn::error::msg::success);
    }
    held().clear();
}

} // namespace

int main() {
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    auto& bus = tarn::client::get_instance(loop);
    bus.connect({});
    bus.add_object("holder",
                   {{"echo", {echo, {}}}, {"hold", {hold, {}}}, {"release", {release, {}}}},
                   [](const std::error_code& code) {
                       std::cout << "holder: " << (code ? code.message() : "ready") << std::endl;
                   });
    loop->run();
    return 0;
}
