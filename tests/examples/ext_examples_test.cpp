/// The small programs on tarn::ext do what they say, and fail when they should.
#include "support/bus_address.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"
#include "support/temporary_folder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

namespace tarn::test {
namespace {

class ExtExamples : public ::testing::Test {
protected:
    void start_demo() {
        demo_ = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_SERVICE});
        demo_->wait_for_line("demo_service: ready");
    }

    static child_process start(const std::string& example) {
        return child_process({"/bin/sh", "-c", "exec " TARN_TEST_EXAMPLES "/" + example + " 2>&1"});
    }

    /// What the command-line client prints, and its exit status.
    static std::string call(const std::string& words) {
        child_process tool({"/bin/sh", "-c", TARN_TEST_TOOL " call " + words + " -s 2>&1"});
        const std::string printed = tool.read_rest();
        return std::to_string(tool.wait()) + ' ' + printed;
    }

    const bus_daemon daemon_;
    std::unique_ptr<child_process> demo_;
};

TEST_F(ExtExamples, HelloPrintsItsEcho) {
    start_demo();
    child_process hello = start("hello");
    EXPECT_EQ(hello.read_rest(), "hello\n");
    EXPECT_EQ(hello.wait(), 0);
}

TEST_F(ExtExamples, HelloFailsWhenThereIsNoObject) {
    child_process hello = start("hello");
    EXPECT_EQ(hello.read_rest(), "demo.echo: Not found\n");
    EXPECT_EQ(hello.wait(), 1);
}

TEST_F(ExtExamples, TheCoroutinePrintsBothEchoes) {
    start_demo();
    child_process coroutine = start("coroutine");
    EXPECT_EQ(coroutine.read_rest(), "hello\nhello again\n");
    EXPECT_EQ(coroutine.wait(), 0);
}

TEST_F(ExtExamples, TheCoroutineFailsWhenItsCallDoes) {
    child_process coroutine = start("coroutine");
    EXPECT_EQ(coroutine.read_rest(), "Not found\n");
    EXPECT_EQ(coroutine.wait(), 1);
}

TEST_F(ExtExamples, TheCalculatorServesUntilItIsEnded) {
    child_process calculator = start("calculator");
    calculator.wait_for_line("calculator: ready");
    EXPECT_EQ(call("calculator divide '{\"a\": 7, \"b\": 2}'"), "0 {\"rest\":1,\"whole\":3}\n");
    EXPECT_EQ(call("calculator divide '{\"a\": 7, \"b\": 0}'"),
              "12 tarn: calculator.divide: Invalid argument\n");
    EXPECT_EQ(call("calculator add '{\"a\": 3000000000}'"), "0 {\"result\":3000000001}\n");
    EXPECT_EQ(call("calculator add '{\"a\": 1, \"b\": 2}'"), "0 {\"result\":3}\n");
    EXPECT_EQ(call("calculator add '{\"a\": \"1\"}'"),
              "12 tarn: calculator.add: Invalid argument\n");
    calculator.kill(SIGTERM);
    EXPECT_EQ(calculator.wait(), 0);
}

TEST_F(ExtExamples, TheDeferredAnswerComesFromItsWorker) {
    child_process slow = start("deferred");
    slow.wait_for_line("slow: ready");
    EXPECT_EQ(call("slow sum '{\"numbers\": [1, 2, 39]}'"), "0 {\"result\":42}\n");
    EXPECT_EQ(call("slow sum '{\"numbers\": [1, true]}'"), "0 {\"result\":2}\n");
    EXPECT_EQ(call("slow sum '{\"numbers\": [\"x\"]}'"), "12 tarn: slow.sum: Invalid argument\n");
    slow.kill(SIGINT);
    EXPECT_EQ(slow.wait(), 0);
}

TEST(ExtExamplesWithoutABus, FailAtOnce) {
    const temporary_folder folder;
    const bus_address nowhere(folder.path() + "/ubus.sock");
    for (const std::string example : {"hello", "coroutine"}) {
        child_process program(
            {"/bin/sh", "-c", "exec " TARN_TEST_EXAMPLES "/" + example + " 2>&1"});
        EXPECT_EQ(program.read_rest(), "cannot connect to the bus: Unknown error\n");
        EXPECT_EQ(program.wait(), 1);
    }
}

} // namespace
} // namespace tarn::test
