/// The ratios that rows are to reach, for the chart.
#include "goals.h"

#include <sstream>
#include <stdexcept>

namespace tarn::bench {

goals read_goals(std::istream& in) {
    goals read;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line.front() == '#') {
            continue;
        }
        std::istringstream words(line);
        double ratio = 0;
        std::string name;
        if (!(words >> ratio >> std::ws) || !(ratio > 0) || !std::getline(words, name)) {
            throw std::runtime_error("not a ratio and the name of a row: " + line);
        }
        read[name] = ratio;
    }
    return read;
}

} // namespace tarn::bench
