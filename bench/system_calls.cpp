/// Which system calls a traced program has made, from what strace wrote.
#include "system_calls.h"

#include <cctype>
#include <sstream>

namespace tarn::bench {

std::map<std::string, unsigned long> entered_calls(std::istream& trace, double begin, double end) {
    std::map<std::string, unsigned long> counted;
    for (std::string line; std::getline(trace, line);) {
        // "1234 1700000000.123456 epoll_wait(3, ..."; the second half of a call that was
        // interrupted by another begins with "<...", a signal with "---", an exit with "+++".
        std::istringstream words(line);
        long thread = 0;
        double when = 0;
        std::string call;
        if (words >> thread >> when >> call && when >= begin && when < end &&
            std::islower(static_cast<unsigned char>(call.front())) != 0) {
            ++counted[call.substr(0, call.find('('))];
        }
    }
    return counted;
}

} // namespace tarn::bench
