// A tour of calling: connection states, replies, refusals, time limits, cancelling, and what
// happens when the bus goes away and comes back.
//
// Watch for: every handler runs on the one loop that main() runs, in the order of the output; the
// outcome of a call is an error code, never an exception; a lost bus ends pending calls with
// "Connection failed", and automatic reconnection asks the back-off function how long to wait.
//
// Needs the service "demo" (demo_service.c) on the bus, and somebody who takes the bus away and
// brings it back when asked to (demo.sh does). Exits with 0 only if everything went as announced.
#include "print.h"

#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tarn::error::msg;
using loop_timer = tarn::utils::event_loop::timer;

const char* name_of(tarn::client::state state) {
    switch (state) {
    case tarn::client::state::disconnected:
        return "disconnected";
    case tarn::client::state::connecting:
        return "connecting";
    case tarn::client::state::connected:
        return "connected";
    case tarn::client::state::disconnecting:
        return "disconnecting";
    }
    return "?";
}

/// The tour: one step starts the next when its outcome has come.
class tour {
public:
    tour(tarn::client& bus, const std::shared_ptr<tarn::loops::epoll_loop>& loop)
        : bus_(bus)
        , loop_(loop)
        , patience_(loop->create_timer()) {
        states_ = bus_.notify_on_state_change([this](tarn::client::state s) { on_state(s); });
        patience_->set_handler([this] { call_again(); });
    }

    void start() {
        // One second before every attempt here; a real program waits longer each time.
        reconnection_ = bus_.auto_connect([](long long attempt) {
            std::cout << "    back-off: attempt " << attempt << " in 1 s" << std::endl;
            return 1s;
        });
    }

    bool complete() const { return complete_; }

private:
    void on_state(tarn::client::state state) {
        std::cout << "[state] " << name_of(state) << std::endl;
        if (state == tarn::client::state::connected) {
            bus_lost_ ? call_again() : call_nested();
        }
    }

    void call(const std::string& path, const std::string& method, const tarn::blob::table& args,
              std::chrono::seconds limit, msg expected, std::size_t replies_expected,
              const std::function<void()>& next) {
        std::cout << path << '.' << method << ' ';
        examples::print(std::cout, args);
        std::cout << std::endl;
        bus_.invoke(
            path, method, args,
            [=](const std::list<tarn::blob::attr>& replies, const std::error_code& status) {
                for (const auto& reply : replies) {
                    std::cout << "    reply: ";
                    examples::print(std::cout, reply);
                    std::cout << '\n';
                }
                std::cout << "    outcome: " << status.message() << std::endl;
                if (status != make_error_code(expected) || replies.size() != replies_expected) {
                    return fail("that is not what this call should give");
                }
                next();
            },
            limit);
    }

    void call_nested() {
        call("demo", "echo",
             {{"msg", "nested values come back as they went"},
              {"n", -42},
              {"interface", {{"name", "lan"}, {"up", true}, {"mtu", 1500}}},
              {"ports", {1, 2, 3}},
              {"load", 0.5}},
             5s, msg::success, 1, [this] { call_twice(); });
    }

    void call_twice() {
        call("demo", "twice", {}, 5s, msg::success, 2, [this] { call_denied(); });
    }

    void call_denied() {
        call("demo", "deny", {}, 5s, msg::permission_denied, 0, [this] { call_unknown(); });
    }

    void call_unknown() {
        call("nobody.here", "anything", {}, 5s, msg::not_found, 0, [this] { call_too_slow(); });
    }

    void call_too_slow() {
        std::cout << "(a limit of 1 s for an answer that takes 60 s)\n";
        call("demo", "late", {{"ms", 60000}}, 1s, msg::timeout, 0, [this] { call_cancelled(); });
    }

    void call_cancelled() {
        std::cout << "demo.late {\"ms\": 60000}, cancelled through its link" << std::endl;
        tarn::utils::link pending = bus_.invoke(
            "demo", "late", {{"ms", 60000}},
            [this](const std::list<tarn::blob::attr>&, const std::error_code&) {
                fail("a cancelled call must not report anything");
            },
            0s);
        pending.release();
        std::cout << "    the link is " << (pending.active() ? "still active" : "inactive")
                  << ", the handler stays silent" << std::endl;
        if (pending.active()) {
            return fail("releasing did not end the call");
        }
        lose_bus();
    }

    void lose_bus() {
        bus_lost_ = true;
        // Pending without a time limit: the loss of the connection is what ends it.
        call("demo", "late", {{"ms", 60000}}, 0s, msg::connection_failed, 0,
             [this] { loss_reported_ = true; });
        std::cout << "now take the bus away, and bring it back after a failed attempt" << std::endl;
    }

    void call_again() {
        std::cout << "demo.echo {\"msg\": \"back again\"}" << std::endl;
        bus_.invoke(
            "demo", "echo", {{"msg", "back again"}},
            [this](const std::list<tarn::blob::attr>& replies, const std::error_code& status) {
                on_answer_again(replies, status);
            },
            5s);
    }

    void on_answer_again(const std::list<tarn::blob::attr>& replies,
                         const std::error_code& status) {
        std::cout << "    outcome: " << status.message() << std::endl;
        if (status == make_error_code(msg::not_found)) {
            patience_->set_timeout(1s); // the bus is back, the service is not yet
            return;
        }
        if (status || replies.size() != 1 || !loss_reported_) {
            return fail("the call after the reconnection did not go as it should");
        }
        complete_ = true;
        loop_->stop();
    }

    void fail(const std::string& what) {
        std::cerr << "FAILED: " << what << std::endl;
        loop_->stop();
    }

    tarn::client& bus_;
    std::shared_ptr<tarn::loops::epoll_loop> loop_;
    std::shared_ptr<loop_timer> patience_;
    tarn::utils::scoped_link states_;
    tarn::utils::scoped_link reconnection_;
    bool bus_lost_ = false;
    bool loss_reported_ = false;
    bool complete_ = false;
};

} // namespace

int main() {
    // Made before the client, so that it outlives it: the client delivers everything here.
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    tarn::client& bus = tarn::client::get_instance(loop);

    tour calls(bus, loop);
    calls.start();
    loop->run();
    // Handlers that refer to the tour must not outlive it.
    bus.cancel();

    std::cout << (calls.complete() ? "done: everything happened" : "NOT done") << std::endl;
    return calls.complete() ? 0 : 1;
}
