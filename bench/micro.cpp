/// Runs one benchmark of one function at a time, as the driver asks: "run NAME". Its argument is
/// the least time of a run, in seconds.
#include "micro.h"

#include "commands.h"

#include <cstdlib>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tarn::bench;

/// Keeps what Google Benchmark would print.
class keeper : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        runs_.insert(runs_.end(), runs.begin(), runs.end());
    }
    const std::vector<Run>& runs() const { return runs_; }

private:
    std::vector<Run> runs_;
};

/// Of one thread's work the processor time counts: it leaves out what else the machine did
/// meanwhile.
double seconds_of(const keeper::Run& result) {
    const bool by_clock = result.benchmark_name().find("/real_time") != std::string::npos;
    return by_clock ? result.real_accumulated_time : result.cpu_accumulated_time;
}

std::string run(const std::string& name) {
    keeper kept;
    const std::string filter =
        '^' + std::regex_replace(name, std::regex("[^A-Za-z0-9_/]"), ".") + "(/.*_time)*$";
    benchmark::RunSpecifiedBenchmarks(&kept, filter);
    if (kept.runs().size() != 1 || kept.runs().front().error_occurred) {
        std::cerr << "micro: no result of '" << name << "'\n";
        std::exit(1);
    }
    const auto& result = kept.runs().front();
    const auto counter = [&result](const char* of) {
        return result.counters.at(of).value;
    };
    std::ostringstream text;
    text.precision(17);
    text << "ran " << seconds_of(result) * 1e9 / counter("turns") << ' ' << counter("cpu") << ' '
         << counter("sleeps") << ' ' << counter("switches") << ' ' << counter("allocations");
    return text.str();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "micro SECONDS\n";
        return 2;
    }
    std::string program = argv[0];
    std::string least = std::string("--benchmark_min_time=") + argv[1];
    std::vector<char*> options{program.data(), least.data()};
    int count = static_cast<int>(options.size());
    benchmark::Initialize(&count, options.data());
    register_encoding();
    register_decoding();
    register_posts();
    say("ready");
    for (std::string line; std::getline(std::cin, line);) {
        if (line.compare(0, 4, "run ") == 0) {
            say(run(line.substr(4)));
        } else {
            answer(line, {});
        }
    }
    return 0;
}
