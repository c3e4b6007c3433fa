/// The long form of the model: plays as many sequences as are asked for and says how they ended, or
/// what was wrong with the first that went wrong.
///
///   model [SEQUENCES [SEED]] [--repeat N] [--limit SECONDS]
///
/// Plays SEQUENCES (100,000) of the seeds SEED (1), SEED + 1, ...; each N times over, since a seed
/// gives what the threads do, but not how they come between each other. What is not over after
/// SECONDS (20) has failed.
#include "model.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

std::uint64_t number(const std::string& text) {
    std::size_t used = 0;
    try {
        const std::uint64_t value = std::stoull(text, &used);
        if (used == text.size()) {
            return value;
        }
    } catch (const std::exception&) {}
    std::cerr << "model [SEQUENCES [SEED]] [--repeat N] [--limit SECONDS]: '" << text
              << "' is no number\n";
    std::exit(2);
}

} // namespace

int main(int argc, char** argv) {
    std::uint64_t repeat = 1;
    std::uint64_t limit = 20;
    std::vector<std::uint64_t> numbers;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--repeat" && i + 1 < argc) {
            repeat = number(argv[++i]);
        } else if (argument == "--limit" && i + 1 < argc) {
            limit = number(argv[++i]);
        } else {
            numbers.push_back(number(argument));
        }
    }
    const std::uint64_t count = numbers.empty() ? 100000 : numbers[0];
    const std::uint64_t first = numbers.size() < 2 ? 1 : numbers[1];

    const auto begin = std::chrono::steady_clock::now();
    const auto seconds = [begin] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    tarn::test::model model{std::chrono::seconds(limit)};
    for (std::uint64_t seed = first; seed < first + count; ++seed) {
        for (std::uint64_t turn = 0; turn < repeat; ++turn) {
            if (const auto wrong = model.play(seed)) {
                std::cerr << *wrong << std::flush;
                model.print_counts(std::cout);
                std::cout << std::flush;
                std::_Exit(1);
            }
        }
        if ((seed - first + 1) % 10000 == 0) {
            std::fprintf(stderr, "%llu sequences, %.0f s\n",
                         static_cast<unsigned long long>(seed - first + 1), seconds());
        }
    }
    model.print_counts(std::cout);
    std::printf("%.1f s, %.2f ms each\n", seconds(),
                1000 * seconds() / static_cast<double>(count * repeat));
}
