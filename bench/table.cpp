/// The tables of results, as Markdown.
#include "table.h"

#include <array>
#include <cstdio>
#include <ostream>
#include <string>

namespace tarn::bench {
namespace {

using line = std::vector<std::string>;

const char* const nothing = "-";

std::string fixed(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

line header(const std::vector<std::string>& beside) {
    line made{"what"};
    const auto figure = [&](const char* of) {
        made.emplace_back(of);
        made.insert(made.end(), beside.begin(), beside.end());
    };
    figure("/s");
    for (const std::string& other : beside) {
        made.push_back(beside.size() == 1 ? "ratio" : "to " + other);
        made.emplace_back("lowest - highest");
    }
    figure("cpu us");
    figure("wake-ups");
    figure("switches");
    figure("allocations");
    return made;
}

line cells(const row& from, const std::vector<std::string>& beside) {
    const side& tarn = from.sides.front();
    line made{from.name};
    const auto figure = [&](const auto& of) {
        made.push_back(of(tarn));
        for (const std::string& other : beside) {
            const side* const there = find_side(from, other);
            made.push_back(there != nullptr ? of(*there) : nothing);
        }
    };
    const auto middle = [](double sample::*member) {
        return [member](const side& of) {
            return digits(median(of.samples, member));
        };
    };
    figure(middle(&sample::rate));
    for (const std::string& other : beside) {
        const side* const there = find_side(from, other);
        if (there != nullptr) {
            const comparison ratio = compare(tarn, *there);
            made.push_back(digits(ratio.middle));
            made.push_back(digits(ratio.lowest) + " - " + digits(ratio.highest));
        } else {
            made.insert(made.end(), {nothing, nothing});
        }
    }
    figure(middle(&sample::cpu_us));
    figure(middle(&sample::sleeps));
    figure(middle(&sample::switches));
    figure([](const side& of) { return of.allocations ? digits(*of.allocations) : nothing; });
    return made;
}

} // namespace

std::string digits(double value) {
    return fixed(value, value >= 100 ? 0 : value >= 10 ? 1 : value >= 1 ? 2 : 3);
}

void print_lines(std::ostream& out, const std::vector<std::vector<std::string>>& lines) {
    std::vector<std::size_t> widths(lines.front().size(), 0);
    for (const line& each : lines) {
        for (std::size_t i = 0; i < each.size(); ++i) {
            widths[i] = std::max(widths[i], each[i].size());
        }
    }
    for (const line& each : lines) {
        for (std::size_t i = 0; i < each.size(); ++i) {
            const std::string gap(widths[i] - each[i].size(), ' ');
            // Names to the left, figures to the right.
            out << "| " << (i == 0 ? each[i] + gap : gap + each[i]) << ' ';
        }
        out << "|\n";
        if (&each == &lines.front()) {
            for (std::size_t i = 0; i < widths.size(); ++i) {
                out << "| " << std::string(widths[i] - 1, '-') << (i == 0 ? '-' : ':') << ' ';
            }
            out << "|\n";
        }
    }
    out.flush();
}

void print_table(std::ostream& out, const std::vector<row>& rows) {
    const std::vector<std::string> beside = others(rows);
    std::vector<line> lines{header(beside)};
    for (const row& each : rows) {
        lines.push_back(cells(each, beside));
    }
    print_lines(out, lines);
}

} // namespace tarn::bench
