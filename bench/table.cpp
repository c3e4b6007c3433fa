/// The table of results, as Markdown.
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

/// Three digits, or the whole number where that is more.
std::string digits(double value) {
    return fixed(value, value >= 100 ? 0 : value >= 10 ? 1 : value >= 1 ? 2 : 3);
}

line header() {
    return {"what",     "/s",    "plain",    "ratio", "lowest - highest", "cpu us", "plain",
            "wake-ups", "plain", "switches", "plain", "allocations",      "plain"};
}

line cells(const row& from) {
    const bool beside = !from.plain.empty();
    line made{from.name};
    const auto pair = [&](double sample::*member) {
        made.push_back(digits(median(from.tarn, member)));
        made.push_back(beside ? digits(median(from.plain, member)) : nothing);
    };
    const auto allocations = [](const std::optional<double>& counted) {
        return counted ? digits(*counted) : nothing;
    };
    pair(&sample::rate);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < from.plain.size(); ++i) {
        ratios.push_back(from.tarn[i].rate / from.plain[i].rate);
    }
    if (beside) {
        const auto ends = std::minmax_element(ratios.begin(), ratios.end());
        made.push_back(digits(median(ratios)));
        made.push_back(digits(*ends.first) + " - " + digits(*ends.second));
    } else {
        made.insert(made.end(), {nothing, nothing});
    }
    pair(&sample::cpu_us);
    pair(&sample::sleeps);
    pair(&sample::switches);
    made.push_back(allocations(from.tarn_allocations));
    made.push_back(allocations(from.plain_allocations));
    return made;
}

} // namespace

void print_table(std::ostream& out, const std::vector<row>& rows) {
    std::vector<line> lines{header(), line(header().size(), "-:")};
    lines.back().front() = "-";
    for (const row& each : rows) {
        lines.push_back(cells(each));
    }
    std::vector<std::size_t> widths(header().size(), 0);
    for (const line& each : lines) {
        for (std::size_t i = 0; i < each.size(); ++i) {
            widths[i] = std::max(widths[i], each[i].size());
        }
    }
    for (const line& each : lines) {
        for (std::size_t i = 0; i < each.size(); ++i) {
            const char filler = each[i].front() == '-' && each[i] != nothing ? '-' : ' ';
            const bool rule = &each == &lines[1];
            const std::string gap(widths[i] - each[i].size(), rule ? '-' : filler);
            // Names to the left, figures to the right.
            out << "| " << (i == 0 ? each[i] + gap : gap + each[i]) << ' ';
        }
        out << "|\n";
    }
    out.flush();
}

} // namespace tarn::bench
