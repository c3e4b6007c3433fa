/// tarn wait as a user meets it.
#include "tools/tool.h"

#include <csignal>

namespace tarn::test {
namespace {

TEST_F(CliWithService, WaitingForWhatIsThereEndsAtOnce) {
    for (const std::string command : {"wait", "wait_for"}) {
        const auto waited = tool({command, "demo"});
        EXPECT_EQ(waited.output, "");
        EXPECT_EQ(waited.status, 0);
    }
}

TEST_F(Cli, WaitingThatTimesOutIs7) {
    const auto waited = tool({"wait", "absent", "-t", "1"});
    EXPECT_EQ(waited.output, "tarn: absent: Request timed out\n");
    EXPECT_EQ(waited.status, 7);
}

TEST_F(CliWithService, WaitingForSeveralNeedsThemAll) {
    const auto waited = tool({"wait", "demo", "horn", "-t", "1"});
    EXPECT_EQ(waited.output, "tarn: demo, horn: Request timed out\n");
    EXPECT_EQ(waited.status, 7);
    const auto horn = start_horn();
    EXPECT_EQ(tool({"wait", "demo", "horn"}).status, 0);
}

TEST_F(Cli, WaitingEndsWhenTheObjectsCome) {
    child_process waiter(command_line({"wait", "demo", "horn"}));
    const auto horn = start_horn();
    start_service();
    EXPECT_EQ(waiter.read_rest(), "");
    EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(Cli, WaitingWaitsForTheBusAsWellAndSaysSo) {
    daemon_.stop();
    child_process waiter(command_line({"wait", "demo"}));
    EXPECT_EQ(waiter.wait_for_line("tarn"), "tarn: cannot connect to the bus; waiting for it");
    daemon_.start();
    start_service();
    EXPECT_EQ(waiter.read_rest(), "tarn: connected to the bus\n");
    EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(Cli, WaitingGoesOnAfterARestartOfTheBus) {
    child_process waiter(command_line({"wait", "demo"}));
    // Whether or not it has connected by then.
    daemon_.restart();
    start_service();
    waiter.read_rest();
    EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(Cli, WaitingForABusThatDoesNotAnswerEndsWithItsLimit) {
    daemon_.pause();
    const auto waited = tool({"wait", "demo", "-t", "1"});
    daemon_.resume();
    EXPECT_EQ(waited.output, "tarn: demo: Request timed out\n");
    EXPECT_EQ(waited.status, 7);
}

TEST_F(Cli, WaitingThatIsInterruptedIsNoSuccess) {
    daemon_.stop();
    child_process waiter(command_line({"wait", "demo"}));
    waiter.wait_for_line("tarn: cannot connect");
    waiter.kill(SIGINT);
    EXPECT_EQ(waiter.wait(), 128 + SIGINT);
}

TEST_F(CliWithHorn, WaitingCallsNoObject) {
    horn_->pause(); // it could not answer
    EXPECT_EQ(tool({"wait", "horn"}).status, 0);
    horn_->resume();
}

} // namespace
} // namespace tarn::test
