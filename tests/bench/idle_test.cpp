/// A connected client that has nothing to do makes no system call.
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

using namespace tarn::test;

TEST(Idle, AClientWithNothingToDoMakesNoSystemCall) {
    child_process bench({TARN_TEST_BENCH, "--idle", "--quick"});
    const std::string output = bench.read_rest(std::chrono::seconds(100));
    ASSERT_EQ(bench.wait(), 0) << output;
    const std::regex none(R"(\| system calls entered +\| +0 \| +\d+ \|)");
    EXPECT_TRUE(std::regex_search(output, none)) << output;
}

} // namespace
