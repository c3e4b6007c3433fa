/// The table's ratios as a bar chart, for a page.
#include "chart.h"

#include "table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ostream>
#include <stdexcept>

namespace tarn::bench {
namespace {

// In the units of the drawing, which are pixels where a page does not scale it.
constexpr double names_width = 270;
constexpr double bars_width = 400;
constexpr double figures_width = 60;
constexpr double top = 64;
constexpr double bar_height = 10;
constexpr double line_height = 16;
constexpr double gap = 8;

/// Middle greys and two hues that differ in lightness too.
const char* const style = R"(<style>
  text { font: 12px system-ui, sans-serif; fill: #444; }
  .title { font-size: 11px; }
  .grid { stroke: #ddd; }
  .one { stroke: #444; stroke-width: 1.5; }
  .side0 { fill: #4a7fb5; }
  .side1 { fill: #b5894a; }
  .side2 { fill: #7a9a5a; }
  .extent { stroke: #222; stroke-opacity: 0.6; }
  .goal { fill: none; stroke: #c03030; stroke-width: 2; }
  @media (prefers-color-scheme: dark) {
    text { fill: #ccc; }
    .grid { stroke: #444; }
    .one { stroke: #ccc; }
    .extent { stroke: #eee; }
    .goal { stroke: #ff7070; }
  }
</style>
)";

std::string escaped(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        switch (c) {
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '&':
            safe += "&amp;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += c;
        }
    }
    return safe;
}

std::string number(double value, const char* format = "%.1f") {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, value);
    return text.data();
}

struct bar {
    std::size_t side; ///< its index among those that libtarn is compared with
    comparison ratio;
};

struct group {
    std::string name;
    std::vector<bar> bars;
    double goal = 0; ///< 0: none
};

/// The position of a ratio. Spans all medians and goals, from 0.5 to 2 at least; an extent beyond
/// is cut off.
class scale {
public:
    explicit scale(const std::vector<group>& groups) {
        for (const group& each : groups) {
            if (each.goal > 0) {
                reach(each.goal);
            }
            for (const bar& drawn : each.bars) {
                reach(drawn.ratio.middle);
            }
        }
        while ((high_ - low_) / step_ > 8) {
            ++step_;
        }
        // Away from 0, so that 1.0 stays a mark.
        low_ = -step_ * ((-low_ + step_ - 1) / step_);
        high_ = step_ * ((high_ + step_ - 1) / step_);
    }

    double at(double ratio) const {
        const double place = std::clamp<double>(std::log2(ratio), low_, high_);
        return names_width + bars_width * (place - low_) / (high_ - low_);
    }

    /// Powers of two, or of four, eight, ... where two are too many.
    std::vector<double> marks() const {
        std::vector<double> made;
        for (int place = low_; place <= high_; place += step_) {
            made.push_back(std::exp2(place));
        }
        return made;
    }

private:
    void reach(double ratio) {
        low_ = std::min(low_, static_cast<int>(std::floor(std::log2(ratio))));
        high_ = std::max(high_, static_cast<int>(std::ceil(std::log2(ratio))));
    }

    // Powers of two.
    int low_ = -1;
    int high_ = 1;
    int step_ = 1;
};

std::vector<group> groups_of(const std::vector<row>& rows, const std::vector<std::string>& beside,
                             const goals& to_reach) {
    std::vector<group> made;
    for (const row& each : rows) {
        group one{each.name, {}, 0};
        for (std::size_t i = 0; i < beside.size(); ++i) {
            const side* const other = find_side(each, beside[i]);
            if (other != nullptr) {
                one.bars.push_back({i, compare(each.sides.front(), *other)});
            }
        }
        const auto goal = to_reach.find(each.name);
        if (goal != to_reach.end()) {
            one.goal = goal->second;
        }
        if (!one.bars.empty()) {
            made.push_back(one);
        }
    }
    return made;
}

class drawing {
public:
    explicit drawing(std::ostream& out)
        : out_(out) {}

    void text(double x, double y, const char* anchor, const std::string& what,
              const char* kind = "") {
        out_ << "<text x=\"" << number(x) << "\" y=\"" << number(y) << "\" text-anchor=\"" << anchor
             << "\" class=\"" << kind << "\">" << escaped(what) << "</text>\n";
    }

    void line(double x1, double y1, double x2, double y2, const char* kind) {
        out_ << "<line x1=\"" << number(x1) << "\" y1=\"" << number(y1) << "\" x2=\"" << number(x2)
             << "\" y2=\"" << number(y2) << "\" class=\"" << kind << "\"/>\n";
    }

    void box(double x1, double x2, double y, std::size_t side) {
        out_ << "<rect x=\"" << number(std::min(x1, x2)) << "\" y=\"" << number(y) << "\" width=\""
             << number(std::abs(x2 - x1)) << "\" height=\"" << number(bar_height)
             << "\" class=\"side" << side % 3 << "\"/>\n";
    }

private:
    std::ostream& out_;
};

void draw_group(drawing& on, const scale& to, const group& drawn, double y) {
    const double height = line_height * static_cast<double>(drawn.bars.size());
    on.text(names_width - 10, y + height / 2 + 4, "end", drawn.name);
    double bar_y = y + (line_height - bar_height) / 2;
    for (const bar& each : drawn.bars) {
        const double middle = bar_y + bar_height / 2;
        on.box(to.at(1), to.at(each.ratio.middle), bar_y, each.side);
        on.line(to.at(each.ratio.lowest), middle, to.at(each.ratio.highest), middle, "extent");
        on.text(names_width + bars_width + 10, middle + 4, "start", digits(each.ratio.middle));
        bar_y += line_height;
    }
    if (drawn.goal > 0) {
        on.line(to.at(drawn.goal), y, to.at(drawn.goal), y + line_height, "goal");
    }
}

void draw_legend(drawing& on, const std::vector<std::string>& beside, bool with_goals) {
    double x = 10;
    for (std::size_t i = 0; i < beside.size(); ++i) {
        on.box(x, x + bar_height, 31, i);
        const std::string what = "rate, as a multiple of " + beside[i] + "'s";
        on.text(x + bar_height + 6, 40, "start", what);
        x += 40 + 6.5 * static_cast<double>(what.size());
    }
    if (with_goals) {
        on.line(x, 29, x, 43, "goal");
        on.text(x + 8, 40, "start", "goal");
    }
}

} // namespace

void draw_chart(std::ostream& out, const std::vector<row>& rows, const goals& to_reach,
                const std::string& title) {
    const std::vector<std::string> beside = others(rows);
    const std::vector<group> groups = groups_of(rows, beside, to_reach);
    if (groups.empty()) {
        throw std::runtime_error("no row to draw: none stands beside anything");
    }
    const scale to(groups);
    double bottom = top + gap;
    for (const group& each : groups) {
        bottom += line_height * static_cast<double>(each.bars.size()) + gap;
    }
    const std::string width = number(names_width + bars_width + figures_width, "%.0f");
    const std::string height = number(bottom + 10, "%.0f");
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" width=\"" << width
        << "\" height=\"" << height << "\" viewBox=\"0 0 " << width << ' ' << height << "\">\n"
        << "<title>" << escaped(title) << "</title>\n"
        << style;
    drawing on(out);
    on.text(10, 18, "start", title, "title");
    draw_legend(on, beside, std::any_of(groups.begin(), groups.end(), [](const group& each) {
                    return each.goal > 0;
                }));
    for (const double mark : to.marks()) {
        const std::string label = mark < 1 ? "1/" + number(1 / mark, "%.0f") : number(mark, "%.0f");
        on.text(to.at(mark), top - 4, "middle", label);
        on.line(to.at(mark), top, to.at(mark), bottom, "grid");
    }
    double y = top + gap;
    for (const group& each : groups) {
        draw_group(on, to, each, y);
        y += line_height * static_cast<double>(each.bars.size()) + gap;
    }
    // Over the bars, which begin there.
    on.line(to.at(1), top, to.at(1), bottom, "one");
    out << "</svg>\n";
}

} // namespace tarn::bench
