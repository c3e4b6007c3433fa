/// tarn: the bus from the command line.
#include "json.h"

#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <charconv>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using std::chrono::seconds;
using tarn::error::msg;

constexpr int exit_usage = 2;
constexpr int exit_no_bus = 3;
constexpr int exit_timeout = 4;
constexpr int exit_status_base = 10;

constexpr const char* help =
    R"(tarn: calls objects on the ubus message bus.

  tarn call PATH METHOD [JSON] [-t SECONDS] [-s]
      Calls METHOD of the object PATH with the fields of the JSON object, and prints every reply
      as JSON, indented, or one a line with -s. Gives up after SECONDS (default 30, 0 never).
  tarn wait PATH [-t SECONDS]
      Waits until an object PATH is on the bus, and for the bus itself. Gives up after SECONDS
      (default 0, never).
  tarn --version
  tarn --help

Integers go out 32 bits wide when they fit (signed), else 64; numbers with a point as doubles.
In replies, a byte of 0 or 1 is printed as false or true, raw bytes as hexadecimal digits.
What follows a -- is no option.

Exit status: 0 success, 2 wrong usage or JSON, 3 no bus, 4 nobody there or no answer in time,
10 + N when the call ended with ubus status N (14 no such object, 13 no such method, ...),
1 anything else.
)";

class usage_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct options {
    std::vector<std::string> words; ///< what is no option, in order
    std::optional<seconds> limit;
    bool single_line = false;
    bool help = false;
};

seconds parse_seconds(std::string_view text) {
    long long number = -1;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() || number < 0) {
        throw usage_error("'" + std::string(text) + "' is no number of seconds");
    }
    return seconds(number);
}

options parse(const std::vector<std::string>& arguments) {
    options parsed;
    bool options_over = false;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (options_over) {
            parsed.words.push_back(*argument);
        } else if (*argument == "--") {
            options_over = true;
        } else if (*argument == "-h" || *argument == "--help") {
            parsed.help = true;
        } else if (*argument == "-s") {
            parsed.single_line = true;
        } else if (*argument == "-t") {
            if (++argument == arguments.end()) {
                throw usage_error("-t needs a number of seconds");
            }
            parsed.limit = parse_seconds(*argument);
        } else if (argument->size() > 1 && argument->front() == '-') {
            throw usage_error("unknown option '" + *argument + "'");
        } else {
            parsed.words.push_back(*argument);
        }
    }
    return parsed;
}

/// The program's loop, which outlives the client made after it.
const std::shared_ptr<tarn::loops::epoll_loop>& the_loop() {
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    return loop;
}

int exit_status_for(const std::error_code& status) {
    if (!status) {
        return 0;
    }
    if (status == make_error_code(msg::timeout)) {
        return exit_timeout;
    }
    return status.category() == tarn::error::msg_category::get_inst()
               ? exit_status_base + status.value()
               : 1;
}

int report(const std::error_code& status) {
    if (status) {
        std::cerr << "tarn: " << status.message() << '\n';
    }
    return exit_status_for(status);
}

/// Ends the loop with a report once `limit` has passed; zero is no limit.
std::shared_ptr<tarn::utils::event_loop::timer> end_after(seconds limit, int& exit_status) {
    auto timer = the_loop()->create_timer();
    timer->set_handler([&exit_status] {
        exit_status = report(msg::timeout);
        the_loop()->stop();
    });
    if (limit != seconds::zero()) {
        timer->set_timeout(limit);
    }
    return timer;
}

int call(const options& given) {
    if (given.words.size() < 2 || given.words.size() > 3) {
        throw usage_error("call takes PATH METHOD [JSON] [-t SECONDS] [-s]");
    }
    tarn::blob::table args;
    try {
        args = tools::to_table(given.words.size() == 3 ? given.words[2] : "");
    } catch (const std::invalid_argument& error) {
        throw usage_error(error.what());
    }
    tarn::client& bus = tarn::client::get_instance(the_loop());
    const auto form = given.single_line ? tools::layout::single_line : tools::layout::indented;
    int exit_status = 1;

    const auto on_result = [&](const std::list<tarn::blob::attr>& replies,
                               const std::error_code& status) {
        for (const auto& reply : replies) {
            std::cout << tools::to_text(reply.get<tarn::blob::table>(), form) << '\n';
        }
        exit_status = report(status);
        the_loop()->stop();
    };
    const seconds limit = given.limit.value_or(seconds(30));
    const auto patience = end_after(limit, exit_status);
    bus.connect([&](const std::error_code& no_bus) {
        patience->stop();
        if (no_bus == make_error_code(tarn::error::generic::aborted)) {
            return; // the limit has passed, which is reported already
        }
        if (no_bus) {
            std::cerr << "tarn: cannot connect to the bus\n";
            exit_status = exit_no_bus;
            return the_loop()->stop();
        }
        bus.invoke(given.words[0], given.words[1], args, on_result, limit);
    });
    the_loop()->run();
    bus.cancel();
    return exit_status;
}

/// Looks for an object until it is there.
class watch {
public:
    watch(tarn::client& bus, std::string path)
        : bus_(bus)
        , path_(std::move(path))
        , retry_(the_loop()->create_timer()) {
        retry_->set_handler([this] { look(); });
    }

    void start() {
        states_ = bus_.notify_on_state_change([this](tarn::client::state state) {
            if (state == tarn::client::state::connected) {
                look();
            }
        });
        connection_ = bus_.auto_connect([](long long) { return seconds(1); });
    }

private:
    void look() {
        // There is no asking for an object alone, so this calls a method that no object has: an
        // answer of any kind means that there is one.
        look_ = bus_.invoke(
            path_, "tarn-wait-no-such-method", {},
            [this](const std::list<tarn::blob::attr>&, const std::error_code& status) {
                if (status == make_error_code(msg::connection_failed)) {
                    return; // the next connection looks again
                }
                if (status == make_error_code(msg::not_found)) {
                    retry_->set_timeout(seconds(1));
                    return;
                }
                the_loop()->stop();
            },
            seconds(0));
    }

    tarn::client& bus_;
    const std::string path_;
    std::shared_ptr<tarn::utils::event_loop::timer> retry_;
    tarn::utils::scoped_link states_;
    tarn::utils::scoped_link connection_;
    tarn::utils::scoped_link look_;
};

int wait(const options& given) {
    if (given.words.size() != 1 || given.single_line) {
        throw usage_error("wait takes PATH [-t SECONDS]");
    }
    tarn::client& bus = tarn::client::get_instance(the_loop());
    int exit_status = 0;
    const auto patience = end_after(given.limit.value_or(seconds(0)), exit_status);
    watch object(bus, given.words[0]);
    object.start();
    the_loop()->run();
    bus.cancel();
    return exit_status;
}

int run(const std::vector<std::string>& arguments) {
    const std::string command = arguments.empty() ? "" : arguments.front();
    if (command == "--help" || command == "-h") {
        std::cout << help;
        return 0;
    }
    if (command == "--version") {
        std::cout << "tarn " << tarn::version::get_string() << '\n';
        return 0;
    }
    const options given = parse({arguments.begin() + (arguments.empty() ? 0 : 1), arguments.end()});
    if (given.help) {
        std::cout << help;
        return 0;
    }
    if (command == "call") {
        return call(given);
    }
    if (command == "wait") {
        return wait(given);
    }
    throw usage_error(command.empty() ? "no command" : "unknown command '" + command + "'");
}

} // namespace

int main(int argc, char** argv) {
    try {
        const int exit_status = run({argv + 1, argv + argc});
        if (!std::cout.flush()) {
            throw std::runtime_error("cannot write the output");
        }
        if (exit_status == exit_timeout) {
            // Perhaps the bus itself does not answer; the client's orderly end would wait for it.
            std::_Exit(exit_status);
        }
        return exit_status;
    } catch (const usage_error& error) {
        std::cerr << "tarn: " << error.what() << "\nTry 'tarn --help'.\n";
        return exit_usage;
    } catch (const std::exception& error) {
        std::cerr << "tarn: " << error.what() << '\n';
        return 1;
    }
}
