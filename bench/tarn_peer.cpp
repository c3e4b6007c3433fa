/// A caller and a service on libtarn, to be measured.
///
///   tarn_peer call           makes the calls that the driver asks for
///   tarn_peer serve OBJECT   publishes OBJECT with the method "echo"
#include "commands.h"

#include "tarn/client.h"
#include "tarn/loops/epoll_loop.h"
#include "tarn/uloop.h"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sched.h>
#include <string>
#include <system_error>
#include <thread>

namespace {

using namespace tarn::bench;

/// Made before the client, so that it outlives it.
const std::shared_ptr<tarn::loops::epoll_loop>& loop() {
    static const auto instance = std::make_shared<tarn::loops::epoll_loop>();
    return instance;
}

tarn::client& bus() {
    return tarn::client::get_instance(loop());
}

/// Runs the loop until the operation that gets this handler has ended; ends the process if it
/// failed.
template <class Operation>
void complete(const Operation& operation) {
    std::error_code outcome;
    operation([&outcome](const std::error_code& code) {
        outcome = code;
        loop()->stop();
    });
    loop()->run();
    if (outcome) {
        std::cerr << "tarn_peer: " << outcome.message() << '\n';
        std::exit(1);
    }
}

class calls {
public:
    explicit calls(const load& wanted)
        : wanted_(wanted) {}

    unsigned long make() {
        for (unsigned long i = 0; i < wanted_.window && started_ != wanted_.calls; ++i) {
            start_one();
        }
        loop()->run();
        return answered_;
    }

private:
    void start_one() {
        const auto n = static_cast<std::uint32_t>(++started_);
        bus().invoke(
            wanted_.object, "echo", {{"n", n}},
            [this, n](const std::list<tarn::blob::attr>& replies, const std::error_code& code) {
                answered_ += !code && is_right(replies, n) ? 1 : 0;
                ++ended_;
                if (started_ != wanted_.calls) {
                    start_one();
                } else if (ended_ == started_) {
                    loop()->stop();
                }
            },
            std::chrono::seconds(0));
    }

    static bool is_right(const std::list<tarn::blob::attr>& replies, std::uint32_t n) {
        if (replies.size() != 1) {
            return false;
        }
        const auto& fields = replies.front().get<tarn::blob::table>();
        const auto found = fields.find("n");
        return found != fields.end() && found->second.get<std::uint32_t>() == n;
    }

    const load wanted_;
    unsigned long started_ = 0;
    unsigned long ended_ = 0;
    unsigned long answered_ = 0;
};

/// Makes calls that are never answered, and leaves them pending.
void leave_pending(const std::string& object, unsigned long count) {
    for (unsigned long made = 0; made != count;) {
        bus().invoke(
            object, "mute", {{"n", static_cast<std::uint32_t>(made)}},
            [](const std::list<tarn::blob::attr>&, const std::error_code&) {
                std::cerr << "tarn_peer: a call has ended that was to stay pending\n";
                std::exit(1);
            },
            std::chrono::seconds(0));
        ++made;
        if (made % pending_at_once == 0 || made == count) {
            // Answered after those have been handled, since the service takes one at a time.
            calls({object, 1, 1, true}).make();
        }
    }
}

void echo(const std::shared_ptr<tarn::client::exchange_ctx>& call) {
    const auto n = call->args.find("n");
    if (n == call->args.end()) {
        return call->respond(tarn::error::msg::invalid_argument);
    }
    call->send({{"n", n->second.get<std::uint32_t>()}}, {});
    call->respond({});
}

void serve(const std::string& object) {
    complete([&object](const tarn::client::completion_handler& done) {
        bus().add_object(object, {{"echo", {echo, {{"n", typeid(std::uint32_t)}}}}}, done);
    });
    std::thread serving([] { loop()->run(); });
    answer_commands({});
    loop()->stop();
    serving.join();
}

/// The private thread does not preempt whoever wakes it.
void let_the_waker_go_on() {
    tarn::uloop::get_instance().post([] {
        const sched_param none = {};
        if (::sched_setscheduler(0, SCHED_BATCH, &none) != 0) {
            std::cerr << "tarn_peer: no SCHED_BATCH\n";
            std::exit(1);
        }
    });
}

} // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    if (!(role == "call" && argc == 2) && !(role == "serve" && argc == 3)) {
        std::cerr << "tarn_peer call | serve OBJECT\n";
        return 2;
    }
    complete([](const tarn::client::completion_handler& done) { bus().connect(done); });
    if (std::getenv("TARN_BENCH_BATCH") != nullptr) {
        let_the_waker_go_on();
    }
    if (role == "serve") {
        serve(argv[2]);
    } else {
        answer_commands(
            {[](const load& wanted) { return calls(wanted).make(); }, leave_pending, {}});
    }
    return 0;
}
