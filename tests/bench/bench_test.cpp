/// The benchmarks work: their short form, which says nothing of speed.
#include "bench/goals.h"
#include "support/child_process.h"
#include "support/temporary_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tarn::test;
using ::testing::Contains;
using ::testing::ElementsAreArray;

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream text(line);
    std::string cell;
    std::getline(text, cell, '|'); // what is ahead of the first bar
    while (std::getline(text, cell, '|')) {
        const auto begin = cell.find_first_not_of(' ');
        const auto end = cell.find_last_not_of(' ');
        cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end - begin + 1));
    }
    return cells;
}

/// The lines of the table without the two of its head.
std::vector<std::vector<std::string>> rows_of(const std::string& output) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) {
        if (line.compare(0, 1, "|") == 0) {
            rows.push_back(split(line));
        }
    }
    rows.erase(rows.begin(), rows.begin() + (rows.size() < 2 ? 0 : 2));
    return rows;
}

std::vector<std::string> every_row() {
    std::vector<std::string> names{
        "call, one at a time",
        "call, 16 in flight",
        "call, 128 in flight",
        "call, 1024 in flight",
        "call, 10000 in flight",
        "call, one at a time, 10000 pending",
        "serve, one at a time",
        "serve, 16 in flight",
        "serve, 128 in flight",
        "serve, 1024 in flight",
        "serve, 128 in flight, one look-up in all",
    };
    for (const std::string what :
         {"encode, ", "encode, builder kept, ", "decode, ", "decode, beside a walk, "}) {
        for (const char* const size : {"1 field", "6 fields", "100 fields", "100 KiB"}) {
            names.push_back(what + size);
        }
    }
    names.push_back("there and back");
    for (const std::string what : {"post to uloop, ", "post to epoll_loop, "}) {
        for (const char* const threads : {"1 thread", "8 threads"}) {
            names.push_back(what + threads);
        }
    }
    return names;
}

// A call that is not answered, or answered wrongly, makes the program fail.
TEST(Bench, TheShortFormGetsEveryCallAnsweredAndMeasuresEveryRow) {
    const temporary_folder folder;
    const std::string chart = folder.path() + "/chart.svg";
    child_process bench({TARN_TEST_BENCH, "--quick", "--svg", chart, "--goals", TARN_TEST_GOALS});
    const std::string output = bench.read_rest(std::chrono::seconds(100));
    ASSERT_EQ(bench.wait(), 0) << output;
    const auto rows = rows_of(output);
    std::vector<std::string> names;
    for (const auto& row : rows) {
        names.push_back(row.front());
        // Rate, ratio and its extent, processor time, wake-ups, switches and allocations, with
        // those of plain libubus.
        ASSERT_EQ(row.size(), 13U) << output;
        const bool alone = row.front().compare(0, 5, "post ") == 0;
        EXPECT_GT(std::atof(row[1].c_str()), 0) << output;
        for (const std::size_t of_both : {2U, 3U, 4U, 6U, 8U, 10U, 12U}) {
            EXPECT_EQ(row[of_both] == "-", alone) << row.front() << ", column " << of_both;
        }
        EXPECT_NE(row[11], "-") << "allocations of " << row.front() << " were not counted";
    }
    EXPECT_THAT(names, ElementsAreArray(every_row())) << output;
    std::ifstream drawn(chart);
    const std::string svg(std::istreambuf_iterator<char>(drawn), {});
    for (const std::string& name : names) {
        const bool alone = name.compare(0, 5, "post ") == 0;
        EXPECT_EQ(svg.find('>' + name + '<') == std::string::npos, alone) << name;
    }
}

// A goal of no row would never be missed.
TEST(Bench, EveryGoalIsOfARow) {
    std::ifstream file(TARN_TEST_GOALS);
    const tarn::bench::goals read = tarn::bench::read_goals(file);
    EXPECT_FALSE(read.empty());
    for (const auto& goal : read) {
        EXPECT_THAT(every_row(), Contains(goal.first));
    }
}

} // namespace
