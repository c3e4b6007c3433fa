/// A client on libtarn that runs as another user, for tests of access rules:
///
///   user_client UID [call PATH METHOD | publish NAME | listen PATTERN | send ID | list PATTERN |
///                    follow PATTERN | subscribe PATH | wait PATH | monitor]...
///
/// Gives up root for the user and the group of the number UID, connects, and does the rest one
/// after the other. Every object it publishes has the method "ping", which answers {"text":
/// "pong"}. Prints "connect: CODE", "call PATH METHOD: CODE, N replies", "list PATTERN: CODE, N
/// objects", and otherwise the action and its argument, ": " and CODE, which is the category and
/// the number of what the library reported first. Then it serves until it is killed.
#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/loops/epoll_loop.h"

#include <csignal>
#include <grp.h>
#include <iostream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using context = std::shared_ptr<tarn::client::exchange_ctx>;

/// The words of the command line that are still to be done.
class script {
public:
    script(tarn::client& bus, std::vector<std::string> words)
        : bus_(bus)
        , words_(std::move(words)) {}

    void next() {
        if (at_ == words_.size()) {
            return;
        }
        const std::string action = word();
        if (action == "call") {
            const std::string path = word();
            const std::string method = word();
            bus_.invoke(
                path, method, {},
                [=](const std::list<tarn::blob::attr>& replies, const std::error_code& code) {
                    told(action + ' ' + path + ' ' + method, code)
                        << ", " << replies.size() << " replies" << std::endl;
                    next();
                },
                std::chrono::seconds(20));
            return;
        }
        const std::string what = action == "monitor" ? "" : word();
        const auto done = [this, said = action + ' ' + what,
                           first = true](const std::error_code& code) mutable {
            if (std::exchange(first, false)) {
                told(said, code) << std::endl;
                next();
            }
        };
        if (action == "publish") {
            bus_.add_object(what,
                            {{"ping",
                              {[](const context& call) {
                                   call->send({{"text", "pong"}}, {});
                               },
                               {}}}},
                            done);
            return;
        }
        beside_calls(action, what, done);
    }

    void beside_calls(const std::string& action, const std::string& what,
                      const tarn::client::completion_handler& done) {
        tarn::bus& bus = bus_.get_bus();
        tarn::bus::options how;
        how.on_registered = done;
        if (action == "listen") {
            bus.listen(
                what, [](const std::string&, const tarn::bus::table&) {}, how);
        } else if (action == "send") {
            bus.send_event(what, {}, done);
        } else if (action == "list") {
            bus.objects(what, [=](const std::vector<tarn::bus::object_info>& found,
                                  const std::error_code& code) {
                told(action + ' ' + what, code) << ", " << found.size() << " objects" << std::endl;
                next();
            });
        } else if (action == "follow") {
            bus.on_object(
                what, [](tarn::bus::presence, const std::string&, std::uint32_t) {}, how);
        } else if (action == "subscribe") {
            bus.subscribe(what, {}, [done](tarn::bus::subscription, const std::error_code& code) {
                done(code);
            });
        } else if (action == "wait") {
            bus.wait_for({what}, std::chrono::seconds(0), done);
        } else {
            bus.monitor([](const tarn::bus::message&) {}, how);
        }
    }

    static std::ostream& told(const std::string& what, const std::error_code& code) {
        return std::cout << what << ": " << code.category().name() << ' ' << code.value();
    }

private:
    std::string word() { return words_.at(at_++); }

    tarn::client& bus_;
    const std::vector<std::string> words_;
    std::size_t at_ = 0;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    const auto id = static_cast<uid_t>(std::stoul(argv[1]));
    if (::setgroups(0, nullptr) != 0 || ::setgid(id) != 0 || ::setuid(id) != 0) {
        std::cout << "user_client: cannot become user " << id << std::endl;
        return 1;
    }
    // The change of user took away the signal by which it goes with the test.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    auto& bus = tarn::client::get_instance(loop);
    script work(bus, {argv + 2, argv + argc});
    bus.connect([&](const std::error_code& code) {
        script::told("connect", code) << std::endl;
        work.next();
    });
    loop->run();
    return 0;
}
