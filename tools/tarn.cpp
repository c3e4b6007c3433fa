/// tarn: the bus from the command line.
#include "options.h"

#include <tarn/ext/json.h>
#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using std::chrono::seconds;
using tarn::error::msg;
using tools::options;
using tools::usage_error;

constexpr int exit_usage = 2;
constexpr int exit_no_bus = 3;
constexpr int exit_timeout = 4;
constexpr int exit_status_base = 10;

constexpr const char* cannot_write = "cannot write the output";

constexpr const char* help =
    R"(tarn: calls objects on the ubus message bus.

  tarn call PATH METHOD [JSON] [-t SECONDS] [-s]
      Calls METHOD of the object PATH with the fields of the JSON object, and prints every reply
      as it comes, as JSON, indented, or one a line with -s (or -S). A JSON of - is read from
      standard input. Gives up after SECONDS (default 30, 0 never).
  tarn wait PATH [-t SECONDS]
      Waits until an object PATH is on the bus, and for the bus itself. Gives up after SECONDS
      (default 0, never).
  tarn --version
  tarn --help

Options are accepted anywhere, also before the command. What follows a -- is no option.

Integers go out 32 bits wide when they fit (signed), else 64; numbers with a point as doubles, null
as a field without type and data. In replies, a byte of 0 or 1 is printed as false or true, a field
without a type as hexadecimal digits, or as null when it has no data.

Errors go to standard error, with the object and the method: 'tarn: demo.fly: Method not found'.
Exit status: 0 success, 2 wrong usage or JSON, 3 no bus, 4 timed out,
10 + N when the call ended with ubus status N (14 no such object, 13 no such method, ...),
1 anything else.
)";

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

/// Reports a failure to the user: what was requested, and why it failed.
int report(const std::string& subject, const std::error_code& status, const char* remark = "") {
    if (status) {
        std::cerr << "tarn: " << subject << ": " << status.message() << remark << '\n';
    }
    return exit_status_for(status);
}

/// Runs `expired` once `limit` has passed; zero is no limit.
std::shared_ptr<tarn::utils::event_loop::timer> after(seconds limit,
                                                      const std::function<void()>& expired) {
    auto timer = the_loop()->create_timer();
    timer->set_handler(expired);
    if (limit != seconds::zero()) {
        timer->set_timeout(limit);
    }
    return timer;
}

/// The daemon would refuse such a look-up, and an answer of any kind is what wait waits for.
void refuse_empty(const std::string& path) {
    if (path.empty()) {
        throw usage_error("no object has an empty path");
    }
}

/// Everything up to the end of standard input. Throws std::system_error when it cannot be read.
std::string read_standard_input() {
    std::string text;
    std::array<char, 65536> chunk{};
    for (;;) {
        const ssize_t size = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot read standard input");
        }
        if (size == 0) {
            return text;
        }
        text.append(chunk.data(), static_cast<std::size_t>(size));
    }
}

/// The arguments of a call, from the words of the command line.
tarn::blob::table arguments_of_call(const std::vector<std::string>& words) {
    std::string text;
    if (words.size() == 3 && words[2] == "-") {
        text = read_standard_input();
        // A message without fields is written {}; nothing at all is the trace of a command that
        // failed at the other end of a pipe.
        if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
            throw usage_error("no JSON on standard input");
        }
    } else if (words.size() == 3) {
        text = words[2];
    }
    try {
        return tarn::ext::parse_json(text);
    } catch (const std::invalid_argument& error) {
        throw usage_error(error.what());
    }
}

/// Connects, calls one method and prints what comes back.
class one_call {
public:
    one_call(tarn::client& bus, const options& given)
        : bus_(bus)
        , path_(given.words[0])
        , method_(given.words[1])
        , form_(given.single_line ? tarn::ext::json_layout::single_line
                                  : tarn::ext::json_layout::indented) {}

    /// Starts the loop and returns the exit status. The limit counts for all of it.
    int run(const tarn::blob::table& args, seconds limit) {
        const auto patience = after(limit, [this] { expire(); });
        connection_ = bus_.connect([this, &args](const std::error_code& no_bus) {
            if (no_bus) {
                std::cerr << "tarn: cannot connect to the bus\n";
                return end_with(exit_no_bus);
            }
            call_ = bus_.invoke_each(
                path_, method_, args, [this](const tarn::blob::attr& reply) { print(reply); },
                [this](const std::error_code& status) { end(status); }, seconds::zero());
        });
        the_loop()->run();
        return exit_status_;
    }

private:
    // Flushed at once: the next reply, or the end of the call, may be long in coming.
    void print(const tarn::blob::attr& reply) const {
        std::cout << tarn::ext::write_json(reply.get<tarn::blob::table>(), form_) << std::endl;
        if (!std::cout) {
            throw std::runtime_error(cannot_write);
        }
    }

    void expire() {
        if (bus_.is_active()) {
            return end(msg::timeout);
        }
        report(path_ + '.' + method_, msg::timeout, " (the bus does not answer)");
        end_with(exit_timeout);
    }

    void end(const std::error_code& status) { end_with(report(path_ + '.' + method_, status)); }

    void end_with(int exit_status) {
        exit_status_ = exit_status;
        connection_.release();
        call_.release();
        the_loop()->stop();
    }

    tarn::client& bus_;
    const std::string path_;
    const std::string method_;
    const tarn::ext::json_layout form_;
    int exit_status_ = 1;
    tarn::utils::scoped_link connection_;
    tarn::utils::scoped_link call_;
};

int call(const options& given) {
    if (given.words.size() < 2 || given.words.size() > 3) {
        throw usage_error("call takes PATH METHOD [JSON] [-t SECONDS] [-s]");
    }
    refuse_empty(given.words[0]);
    const tarn::blob::table args = arguments_of_call(given.words);
    tarn::client& bus = tarn::client::get_instance(the_loop());
    const int exit_status = one_call(bus, given).run(args, given.limit.value_or(seconds(30)));
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
    const std::string& path = given.words[0];
    refuse_empty(path);
    tarn::client& bus = tarn::client::get_instance(the_loop());
    int exit_status = 0;
    const auto patience = after(given.limit.value_or(seconds(0)), [&] {
        exit_status = report(path, msg::timeout);
        the_loop()->stop();
    });
    watch object(bus, path);
    object.start();
    the_loop()->run();
    bus.cancel();
    return exit_status;
}

int run(const std::vector<std::string>& arguments) {
    const options given = tools::parse_options(arguments);
    if (given.help) {
        std::cout << help;
        return 0;
    }
    if (given.version) {
        std::cout << "tarn " << tarn::version::get_string() << '\n';
        return 0;
    }
    if (given.command == "call") {
        return call(given);
    }
    if (given.command == "wait") {
        return wait(given);
    }
    throw usage_error(given.command.empty() ? "no command"
                                            : "unknown command '" + given.command + "'");
}

} // namespace

int main(int argc, char** argv) {
    try {
        const int exit_status = run({argv + 1, argv + argc});
        if (!std::cout.flush()) {
            throw std::runtime_error(cannot_write);
        }
        if (exit_status == exit_timeout) {
            // Perhaps the bus itself does not answer; a graceful shutdown of the client would wait
            // for it.
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
