/// The program that the README shows.
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

TEST(Hello, GetsItsEchoFromTheDemoService) {
    const bus_daemon daemon;
    child_process service({TARN_TEST_SERVICE});
    service.wait_for_line("demo_service: ready");
    child_process hello({TARN_TEST_HELLO});
    EXPECT_EQ(hello.read_rest(), "answered\nhello\n");
    EXPECT_EQ(hello.wait(), 0);
}

TEST(Hello, SaysSoWhenNobodyIsThereToAnswer) {
    const bus_daemon daemon;
    child_process hello({TARN_TEST_HELLO});
    EXPECT_EQ(hello.read_rest(), "Not found\n");
    EXPECT_EQ(hello.wait(), 0);
}

} // namespace
} // namespace tarn::test
