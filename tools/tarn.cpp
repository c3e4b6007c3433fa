/// tarn: the bus from the command line.
#include "commands.h"
#include "exit_status.h"
#include "help.h"
#include "input.h"
#include "options.h"
#include "output.h"

#include <tarn/version.h>

#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using tools::exit_statuses;
using tools::options;
using tools::usage_error;

constexpr int exit_usage = 2;

struct command {
    const char* name;
    int (*run)(const options&);
    const exit_statuses& numbers;
    bool time_stamps; ///< whether -T means something
};

constexpr command commands[] = {
    {"call", tools::call, tools::call_statuses, false},
    {"list", tools::list, tools::statuses_of_ubus, false},
    {"listen", tools::listen, tools::statuses_of_ubus, true},
    {"monitor", tools::monitor, tools::statuses_of_ubus, true},
    {"send", tools::send, tools::statuses_of_ubus, false},
    {"subscribe", tools::subscribe, tools::statuses_of_ubus, true},
    {"wait", tools::wait, tools::statuses_of_ubus, false},
    {"wait_for", tools::wait, tools::statuses_of_ubus, false}, // what ubus calls it
};

const command& find_command(const options& given) {
    for (const command& known : commands) {
        if (given.command == known.name) {
            return known;
        }
    }
    if (given.command.empty()) {
        throw usage_error("no command");
    }
    // Where ubus has the name of a socket.
    const bool socket = given.json && given.command.front() == '/';
    throw usage_error("unknown command '" + given.command + "'" +
                      (socket ? " (-s takes no socket)" : ""));
}

int report_usage(const std::exception& error, int status) {
    std::cerr << "tarn: " << error.what() << "\nTry 'tarn --help'.\n";
    return status;
}

int run_command(const command& chosen, const options& given) {
    try {
        if (given.time_stamps && !chosen.time_stamps) {
            throw usage_error(given.command + " takes no -T");
        }
        if (chosen.run != tools::monitor &&
            !(given.message_types.empty() && given.traffic.empty())) {
            throw usage_error(given.command + " takes neither -m nor -M");
        }
        return chosen.run(given);
    } catch (const usage_error& error) {
        return report_usage(error, chosen.numbers.usage);
    } catch (const tools::json_error& error) {
        return report_usage(error, chosen.numbers.json);
    }
}

/// Keeps the numbers of standard streams that are closed from descriptors of other kinds: what is
/// written to them is to fail, not to go elsewhere.
void hold_standard_streams() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(number, F_GETFD) < 0) {
            // Gets the lowest number that is free, which is this one.
            ::open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

/// Ends the program without a graceful shutdown of the client.
[[noreturn]] void end_at_once(int exit_status) {
    std::cout.flush();
    std::_Exit(exit_status);
}

int run(const std::vector<std::string>& arguments) {
    const options given = tools::parse_options(arguments);
    if (given.help) {
        std::cout << tools::help;
        return 0;
    }
    if (given.version) {
        std::cout << "tarn " << tarn::version::get_string() << '\n';
        return 0;
    }
    const command& chosen = find_command(given);
    const int exit_status = run_command(chosen, given);
    if (exit_status == chosen.numbers.timeout || chosen.time_stamps) {
        // Perhaps the bus does not answer; a graceful shutdown would wait for it.
        end_at_once(exit_status);
    }
    return exit_status;
}

} // namespace

int main(int argc, char** argv) {
    hold_standard_streams();
    try {
        const int exit_status = run({argv + 1, argv + argc});
        if (!std::cout.flush()) {
            throw tools::output_error();
        }
        return exit_status;
    } catch (const usage_error& error) {
        return report_usage(error, exit_usage);
    } catch (const tools::reader_gone&) {
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "tarn: " << error.what() << '\n';
        return tools::exit_other;
    }
}
