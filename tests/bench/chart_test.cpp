/// The chart shows the ratios of the rows, to scale, and is well-formed.
#include "bench/chart.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

namespace {

using namespace tarn::bench;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

side with_rates(const std::string& name, const std::vector<double>& rates) {
    side made{name, {}, {}};
    for (const double rate : rates) {
        made.samples.push_back({rate, 0, 0, 0, -1});
    }
    return made;
}

row beside_plain(const std::string& name, double ratio) {
    return {name, {with_rates("tarn", {100 * ratio}), with_rates("plain", {100})}};
}

std::string draw(const std::vector<row>& rows, const goals& to_reach = {}) {
    std::ostringstream out;
    draw_chart(out, rows, to_reach, "the title");
    return out.str();
}

/// The numbers of an attribute, of all elements that hold `mark`, in their order.
std::vector<double> values(const std::string& svg, const std::string& mark,
                           const std::string& attribute) {
    std::vector<double> found;
    std::istringstream lines(svg);
    const std::regex value(" " + attribute + "=\"([-0-9.]+)\"");
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (line.find(mark) != std::string::npos && std::regex_search(line, match, value)) {
            found.push_back(std::stod(match[1]));
        }
    }
    return found;
}

/// Whether every element ends, in the right order, and every attribute is quoted.
bool is_well_formed(const std::string& svg) {
    static const std::regex tag("<(/?)([a-z]+)((?: [-a-zA-Z0-9]+=\"[^\"<&]*\")*)(/?)>");
    static const std::regex plain("(?:[^<&]|&amp;|&lt;|&quot;|&gt;)*");
    std::vector<std::string> open;
    auto place = svg.cbegin();
    for (std::sregex_iterator found(svg.begin(), svg.end(), tag), end; found != end; ++found) {
        const std::smatch& match = *found;
        if (!std::regex_match(place, match[0].first, plain)) {
            return false;
        }
        place = match[0].second;
        if (match[1].length() != 0) {
            if (open.empty() || open.back() != match[2]) {
                return false;
            }
            open.pop_back();
        } else if (match[4].length() == 0) {
            open.push_back(match[2]);
        }
    }
    return open.empty() && std::regex_match(place, svg.cend(), plain);
}

TEST(Chart, ABarReachesFromOneToTheRatioOnALogarithmicScale) {
    const std::string svg =
        draw({beside_plain("half", 0.5), beside_plain("double", 2), beside_plain("four", 4)});
    const double one = values(svg, "class=\"one\"", "x1").at(0);
    const auto begins = values(svg, "<rect", "x");
    const auto widths = values(svg, "<rect", "width");
    // The first of them is the legend's.
    ASSERT_THAT(begins, SizeIs(4));
    EXPECT_NEAR(begins[1] + widths[1], one, 0.11) << "slower is to the left";
    EXPECT_NEAR(begins[2], one, 0.11) << "faster is to the right";
    EXPECT_NEAR(widths[1], widths[2], 0.11);
    EXPECT_NEAR(widths[3], 2 * widths[2], 0.11);
}

TEST(Chart, TheExtentReachesFromTheLowestToTheHighestRatio) {
    const std::string svg = draw({{"row",
                                   {with_rates("tarn", {50, 100, 200, 100, 100}),
                                    with_rates("plain", {100, 100, 100, 100, 100})}}});
    const auto marks = values(svg, "class=\"grid\"", "x1");
    ASSERT_THAT(marks, SizeIs(3)) << "0.5, 1 and 2";
    EXPECT_THAT(values(svg, "class=\"extent\"", "x1"), ElementsAre(marks[0]));
    EXPECT_THAT(values(svg, "class=\"extent\"", "x2"), ElementsAre(marks[2]));
}

TEST(Chart, AGoalIsMarkedAtItsRatioInItsRow) {
    const std::string svg =
        draw({beside_plain("first", 1.5), beside_plain("second", 1.5)}, {{"second", 2}});
    const auto marks = values(svg, "class=\"grid\"", "x1");
    const auto goal = values(svg, "class=\"goal\"", "x1");
    ASSERT_THAT(goal, SizeIs(2)) << "the legend's and the row's";
    EXPECT_EQ(goal[1], marks[2]);
    EXPECT_GT(values(svg, "class=\"goal\"", "y1")[1], values(svg, "<rect", "y")[1]);
    EXPECT_THAT(draw({beside_plain("first", 1.5)}), Not(HasSubstr("class=\"goal\"")));
}

TEST(Chart, NamesAndRatiosAreTexts) {
    const std::string svg = draw({beside_plain("call, <16> & more", 0.5)});
    EXPECT_THAT(svg, HasSubstr(">call, &lt;16&gt; &amp; more</text>"));
    EXPECT_THAT(svg, HasSubstr(">0.500</text>"));
    EXPECT_THAT(svg, HasSubstr("<title>the title</title>"));
}

TEST(Chart, ARowHasABarForEachThatItStandsBeside) {
    const std::string svg = draw(
        {{"row",
          {with_rates("tarn", {100}), with_rates("plain", {200}), with_rates("other", {50})}}});
    EXPECT_THAT(values(svg, "<rect", "width"), SizeIs(4)) << "two, and two in the legend";
    EXPECT_THAT(svg, HasSubstr("multiple of plain's"));
    EXPECT_THAT(svg, HasSubstr("multiple of other's"));
}

TEST(Chart, RowsBesideNothingAreLeftOut) {
    const row alone{"post", {with_rates("tarn", {100})}};
    EXPECT_THAT(draw({alone, beside_plain("call", 1)}), Not(HasSubstr("post")));
    EXPECT_THROW(draw({alone}), std::runtime_error);
}

TEST(Chart, IsWellFormed) {
    const std::string svg = draw(
        {beside_plain("call \"one\" & <two>", 0.003), beside_plain("call", 70)}, {{"call", 2}});
    EXPECT_TRUE(is_well_formed(svg)) << svg;
    EXPECT_FALSE(is_well_formed(svg.substr(0, svg.size() - 4)));
}

TEST(Goals, AreLinesOfARatioAndANameWithComments) {
    std::istringstream text("# ahead\n0.8  call, 16 in flight\n\n1 post\n");
    const goals read = read_goals(text);
    EXPECT_THAT(
        read, ElementsAre(std::make_pair("call, 16 in flight", 0.8), std::make_pair("post", 1.0)));
}

TEST(Goals, ALineThatIsNoGoalIsRefused) {
    for (const char* const line : {"call, 16 in flight", "0.8", "0 call", "-1 call"}) {
        std::istringstream text(line);
        EXPECT_THROW(read_goals(text), std::runtime_error) << line;
    }
}

} // namespace
