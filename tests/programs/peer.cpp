/// A service written on libtarn, for tests that load it. It publishes the object "peer":
///
///   echo  {...}   answers with its own arguments
///   big           answers with 8 KiB
///   hold          never answers while the service runs
///   tell          answers with {"i": 1} and {"i": 2}, and never ends the call while it runs
///   tell_refuse   answers with the same, and then refuses: permission denied
///
/// Prints "peer: ready" once other clients can see the object, and serves until it is killed.
#include "tarn/client.h"
#include "tarn/loops/epoll_loop.h"

#include <cstdio>
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

void big(const context& call) {
    call->send({{"data", tarn::blob::attr(std::string(8192, 'x'))}}, {});
}

void hold(const context& call) {
    held().push_back(call);
}

void tell(const context& call) {
    call->send({{"i", 1}}, {});
    call->send({{"i", 2}}, {});
    hold(call);
}

void tell_refuse(const context& call) {
    tell(call);
    call->respond(tarn::error::msg::permission_denied);
}

} // namespace

int main() {
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    auto& bus = tarn::client::get_instance(loop);
    int status = 0;
    const auto check = [&status](const std::error_code& code) {
        if (code) {
            std::fprintf(stderr, "peer: %s\n", code.message().c_str());
            status = 1;
            loop->stop();
        }
    };
    bus.connect([&](const std::error_code& code) {
        check(code);
        bus.add_object("peer",
                       {{"echo", {echo, {}}},
                        {"big", {big, {}}},
                        {"hold", {hold, {}}},
                        {"tell", {tell, {}}},
                        {"tell_refuse", {tell_refuse, {}}}},
                       [&check](const std::error_code& added) {
                           check(added);
                           std::puts("peer: ready");
                           std::fflush(stdout);
                       });
    });
    loop->run();
    return status;
}
