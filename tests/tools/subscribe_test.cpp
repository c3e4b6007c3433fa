/// tarn subscribe as a user meets it.
#include "tools/tool.h"

#include <csignal>
#include <gmock/gmock.h>

namespace tarn::test {
namespace {

void sound(const std::string& fields, const std::string& path = "horn") {
    EXPECT_EQ(tool({"call", path, "sound", fields}).status, 0);
}

TEST_F(CliWithHorn, SubscribePrintsEveryNotificationInTheShapeOfUbus) {
    child_process subscriber(command_line({"subscribe", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    sound(R"({"text": "hi", "loud": true})");
    sound("{}");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "sounded": {"loud":true,"text":"hi"} })");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "sounded": {} })");
    subscriber.kill(SIGINT);
    EXPECT_EQ(subscriber.read_rest(), "tarn: 2 notifications\n");
    EXPECT_EQ(subscriber.wait(), 0);
}

TEST_F(CliWithHorn, SubscribeAnswersWithSuccess) {
    child_process subscriber(command_line({"subscribe", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    EXPECT_EQ(tool({"call", "horn", "ask", R"({"why": 1})", "-s"}).output, "{\"status\":0}\n");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "asked": {"why":1} })");
}

TEST_F(CliWithHorn, SubscribePrintsJsonWithoutSpacesWithS) {
    child_process subscriber(command_line({"subscribe", "-s", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    sound(R"({"text": "hi"})");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({"sounded":{"text":"hi"}})");
}

TEST_F(CliWithHorn, SubscribeNamesTheObjectWithVAndPrintsForEachOnce) {
    const auto section = start_horn("section");
    child_process subscriber(command_line({"subscribe", "-v", "horn", "section", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    section->wait_for_line("horn: subscribed");
    sound(R"({"text": "hi"})", "horn");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "horn": { "sounded": {"text":"hi"} } })");
    sound(R"({"text": "ho"})", "section");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "section": { "sounded": {"text":"ho"} } })");
}

TEST_F(CliWithHorn, SubscribeNamesTheObjectInJsonToo) {
    child_process subscriber(command_line({"subscribe", "-sv", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    sound(R"({"text": "hi"})");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({"horn":{"sounded":{"text":"hi"}}})");
}

TEST_F(CliWithHorn, SubscribeWaitsForAnObjectAndSaysSo) {
    child_process subscriber(command_line({"subscribe", "horn", "section"}));
    EXPECT_EQ(subscriber.wait_for_line("tarn"), "tarn: section: not there yet; waiting for it");
    const auto section = start_horn("section");
    EXPECT_EQ(subscriber.wait_for_line("tarn"), "tarn: section: subscribed");
    sound(R"({"text": "hi"})", "section");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "sounded": {"text":"hi"} })");
}

TEST_F(CliWithHorn, SubscribeGoesOnWhenTheObjectComesBackAndSaysSo) {
    child_process subscriber(command_line({"subscribe", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    sound("{}");
    subscriber.wait_for_line("{");
    horn_->kill(SIGKILL);
    EXPECT_EQ(subscriber.wait_for_line("tarn"), "tarn: horn: subscription lost: Not found");
    horn_ = start_horn();
    EXPECT_EQ(subscriber.wait_for_line("tarn"), "tarn: horn: subscribed");
    sound("{}");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "sounded": {} })");
}

TEST_F(CliWithHorn, SubscribeGoesOnAfterARestartOfTheBusAndSaysSo) {
    child_process subscriber(command_line({"subscribe", "horn"}));
    horn_->wait_for_line("horn: subscribed");
    sound("{}");
    subscriber.wait_for_line("{");
    daemon_.restart();
    EXPECT_EQ(subscriber.wait_for_line("tarn: horn"),
              "tarn: horn: subscription lost: Connection failed");
    subscriber.wait_for_line("tarn: connected to the bus");
    horn_ = start_horn();
    subscriber.wait_for_line("tarn: horn: subscribed");
    sound("{}");
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "sounded": {} })");
}

} // namespace
} // namespace tarn::test
