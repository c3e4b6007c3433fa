/// last_answer WAY: answers one call, and is gone at once. It publishes the object "last", prints
/// "last_answer: ready", and on the first call of its method "serve" sends two replies, {"n": 1}
/// and
/// {"n": 2}, responds with success, and in the same breath
///
///   exit         calls exit() in the method handler
///   drop         calls exit() in the method handler, without having responded
///   main         returns from main() on another thread, which is the one that answers
///   disconnect   disconnects, and ends when that is done
///   cancel       calls cancel(), and then exit()
///
/// The exit status is 0 when all went well.
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/loops/epoll_loop.h"

#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

namespace {

using context = std::shared_ptr<tarn::client::exchange_ctx>;

// Made before the client, so destroyed after it.
const std::shared_ptr<tarn::loops::epoll_loop>& loop() {
    static const auto instance = std::make_shared<tarn::loops::epoll_loop>();
    return instance;
}

tarn::client& bus() {
    return tarn::client::get_instance(loop());
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "last_answer: %s\n", what.c_str());
    std::_Exit(1);
}

void check(const std::error_code& code) {
    if (code) {
        fail(code.message());
    }
}

void answer(const context& call) {
    call->send({{"n", tarn::blob::attr(1)}}, {});
    call->send({{"n", tarn::blob::attr(2)}}, {});
}

void serve(const std::string& way, const context& call) {
    answer(call);
    if (way == "drop") {
        std::exit(0);
    }
    call->respond(tarn::error::msg::success);
    if (way == "disconnect") {
        bus().disconnect([](const std::error_code& code) {
            check(code);
            loop()->stop();
        });
        return;
    }
    if (way == "cancel") {
        bus().cancel();
    }
    std::exit(0);
}

void publish(const tarn::client::method_handler& handler) {
    bus().connect([handler](const std::error_code& no_bus) {
        check(no_bus);
        bus().add_object("last", {{"serve", {handler, {}}}}, [](const std::error_code& code) {
            check(code);
            std::puts("last_answer: ready");
            std::fflush(stdout);
        });
    });
}

} // namespace

int main(int argc, char** argv) {
    const std::string way = argc > 1 ? argv[1] : "";
    if (way == "main") {
        static std::promise<context> called;
        publish([](const context& call) { called.set_value(call); });
        std::thread([kept = loop()] { kept->run(); }).detach();
        const context call = called.get_future().get();
        answer(call);
        call->respond(tarn::error::msg::success);
        return 0;
    }
    publish([way](const context& call) { serve(way, call); });
    loop()->run();
    return 0;
}
