/// What the driver asks of the programs that are measured, for these programs.
#include "commands.h"

#include "usage.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace tarn::bench {

void say(const std::string& line) {
    std::cout << line << std::endl;
}

void answer(const std::string& line, const abilities& able) {
    std::istringstream words(line);
    std::ostringstream text;
    text.precision(17);
    std::string word;
    words >> word;
    load wanted;
    if (word == "usage") {
        const usage now = used_so_far();
        text << "usage " << now.cpu_ns << ' ' << now.sleeps << ' ' << now.switches << ' '
             << now.allocations;
    } else if (word == "call" && able.call &&
               words >> wanted.object >> wanted.calls >> wanted.window >> wanted.look_up_each) {
        using clock = std::chrono::steady_clock;
        const auto begin = clock::now();
        const unsigned long answered = able.call(wanted);
        const std::chrono::duration<double, std::nano> took = clock::now() - begin;
        text << "done " << answered << ' ' << took.count();
    } else if (word == "pend" && able.pend && words >> wanted.object >> wanted.calls) {
        able.pend(wanted.object, wanted.calls);
        text << "pending";
    } else if (word == "unanswered" && able.unanswered) {
        text << "unanswered " << able.unanswered();
    } else {
        std::cerr << "not a command here: " << line << '\n';
        std::exit(2);
    }
    say(text.str());
}

void answer_commands(const abilities& able) {
    say("ready");
    for (std::string line; std::getline(std::cin, line);) {
        answer(line, able);
    }
}

} // namespace tarn::bench
