/// The command line of tarn, taken apart.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tools {

/// The user asked for what does not exist; what() says so in one line.
class usage_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct options {
    std::string command;            ///< the first word that is no option; empty without one
    std::vector<std::string> words; ///< the others, in order
    std::optional<std::chrono::seconds> limit;
    bool json = false;       ///< -s
    bool simplified = false; ///< -S, what ubus makes of it
    bool verbose = false;
    bool time_stamps = false;
    std::vector<std::string> message_types; ///< -m, in order
    std::string traffic;                    ///< -M: "r", "t", or empty for both
    bool help = false;
    bool version = false;
};

/// Options are found anywhere up to the first "--", which is dropped; of one given twice the last
/// counts, -m aside. A "-" alone is a word. Letters may share a dash (-sT, -t5). Throws
/// usage_error.
options parse_options(const std::vector<std::string>& arguments);

} // namespace tools
