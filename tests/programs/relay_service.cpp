/// A service on libtarn that calls others while it is called, for tests of several processes.
///
/// Publishes the object "relay", again on every connection, and prints "relay: ready" each time:
///
///   forward {"path": text, "method": text, "seconds": int32, ...}
///                 calls that method, with all of its own arguments and a limit of that many
///                 seconds (0, none, without), and answers with what comes back
///   tally         answers {"begun": n, "ended": n}: the calls made by forward so far, and how
///                 often one of them has reported its end
///
/// Its clock hurries: a second has passed when nothing happened for 10 ms. Ends on SIGTERM.
#include "tarn/client.h"
#include "tarn/error.h"

#include "support/hand_loop.h"
#include "support/hurry.h"

#include <atomic>
#include <csignal>
#include <iostream>
#include <thread>

namespace {

using context = std::shared_ptr<tarn::client::exchange_ctx>;
using std::chrono::seconds;

unsigned int begun = 0;
unsigned int ended = 0;

const std::shared_ptr<tarn::test::hand_loop>& the_loop() {
    // Outlives the client, which is made after it.
    static const auto loop = std::make_shared<tarn::test::hand_loop>();
    return loop;
}

tarn::client& bus() {
    return tarn::client::get_instance(the_loop());
}

template <class T>
T field(const tarn::blob::table& fields, const char* name) {
    const auto found = fields.find(name);
    return found == fields.end() ? T() : found->second.get<T>();
}

void forward(const context& incoming) {
    ++begun;
    bus().invoke(
        field<std::string>(incoming->args, "path"), field<std::string>(incoming->args, "method"),
        incoming->args,
        [incoming](const std::list<tarn::blob::attr>& replies, const std::error_code& status) {
            ++ended;
            for (const auto& reply : replies) {
                incoming->send(reply.get<tarn::blob::table>(), {});
            }
            incoming->respond(status);
        },
        seconds(field<int>(incoming->args, "seconds")));
}

void tally(const context& incoming) {
    incoming->send({{"begun", begun}, {"ended", ended}}, {});
}

} // namespace

int main() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::atomic<bool> over{false};
    std::thread end_waiter([&] {
        int received = 0;
        sigwait(&ends, &received);
        over = true;
    });

    tarn::client& client = bus();
    const tarn::utils::scoped_link states =
        client.notify_on_state_change([&](tarn::client::state state) {
            if (state == tarn::client::state::connected) {
                client.add_object("relay", {{"forward", {forward, {}}}, {"tally", {tally, {}}}},
                                  [](const std::error_code& failed) {
                                      std::cout
                                          << "relay: " << (failed ? failed.message() : "ready")
                                          << std::endl;
                                  });
            }
        });
    const tarn::utils::scoped_link connection =
        client.auto_connect([](long long) { return seconds(1); });
    tarn::test::run_hurried(
        *the_loop(), [&over] { return over.load(); }, seconds(3600));
    client.cancel();
    end_waiter.join();
    return 0;
}
