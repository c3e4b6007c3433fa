/// The examples on loops of other libraries, each in a program of its own.
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

TEST(LoopExample, PrintsTheEchoOfTheDemoService) {
    const bus_daemon daemon;
    child_process service({TARN_TEST_SERVICE});
    service.wait_for_line("demo_service: ready");
    child_process example({TARN_TEST_EXAMPLE});
    EXPECT_EQ(example.read_rest(), "hello\n");
    EXPECT_EQ(example.wait(), 0);
}

TEST(LoopExample, FailsWhenNoServiceAnswers) {
    const bus_daemon daemon;
    child_process example({TARN_TEST_EXAMPLE});
    EXPECT_EQ(example.read_rest(), "");
    EXPECT_EQ(example.wait(), 1);
}

} // namespace
} // namespace tarn::test
