/// tarn list and tarn send as a user meets them.
#include "tools/tool.h"

#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using ::testing::MatchesRegex;

TEST_F(CliWithHorn, ListPrintsThePathsOfAllObjects) {
    start_service();
    const auto listed = tool({"list"});
    EXPECT_EQ(listed.output, "demo\nhorn\n");
    EXPECT_EQ(listed.status, 0);
}

TEST_F(CliWithHorn, ListPrintsTheObjectsThatMatchAPattern) {
    const auto section = start_horn("horn.section");
    EXPECT_EQ(tool({"list", "horn"}).output, "horn\n");
    EXPECT_EQ(tool({"list", "horn*"}).output, "horn\nhorn.section\n");
    EXPECT_EQ(tool({"list", "horn.*"}).output, "horn.section\n");
}

TEST_F(CliWithHorn, ListPrintsMethodsWithVInThePublishersOrder) {
    const auto listed = tool({"list", "-v", "horn"});
    EXPECT_THAT(
        listed.output,
        MatchesRegex("'horn' @[0-9a-f]{8}\n"
                     "\t\"sound\":\\{\"text\":\"String\",\"loud\":\"Boolean\"\\}\n"
                     "\t\"ask\":\\{\\}\n"
                     "\t\"types\":\\{\"z_any\":\"\\(unknown\\)\",\"y_array\":\"Array\","
                     "\"x_table\":\"Table\",\"w_string\":\"String\",\"v_int64\":\"\\(unknown\\)\","
                     "\"u_int32\":\"Integer\",\"t_int16\":\"\\(unknown\\)\",\"s_bool\":\"Boolean\","
                     "\"r_double\":\"\\(unknown\\)\"\\}\n"
                     "\t\"flood\":\\{\"count\":\"Integer\"\\}\n"
                     "\t\"quiet\":\\{\\}\n"));
    EXPECT_EQ(listed.status, 0);
}

TEST_F(CliWithHorn, ListPrintsJsonWithS) {
    EXPECT_THAT(tool({"list", "-s", "horn"}).output,
                MatchesRegex("\\{\"path\":\"horn\",\"id\":\"[0-9a-f]{8}\",\"methods\":\\{\"sound\":"
                             "\\{\"text\":\"String\",\"loud\":\"Boolean\"\\},\"ask\":.*\\}\\}\n"));
}

TEST_F(CliWithHorn, ListPrintsPathsAloneWithTheSimpleOutputOfUbus) {
    EXPECT_EQ(tool({"list", "-v", "-S"}).output, "horn\n");
}

TEST_F(Cli, ListOfAnEmptyBusIsEmpty) {
    const auto listed = tool({"list"});
    EXPECT_EQ(listed.output, "");
    EXPECT_EQ(listed.status, 0);
}

TEST_F(Cli, ListOfWhatIsNotThereIs4) {
    for (const std::string pattern : {"absent", "absent*", "*"}) {
        const auto listed = tool({"list", pattern});
        EXPECT_EQ(listed.output, "tarn: " + pattern + ": Not found\n");
        EXPECT_EQ(listed.status, 4);
    }
}

TEST_F(Cli, ListWithoutABusIs255) {
    daemon_.stop();
    const auto listed = tool({"list"});
    EXPECT_EQ(listed.output, "tarn: cannot connect to the bus\n");
    EXPECT_EQ(listed.status, 255);
}

TEST_F(Cli, ListOnABusThatDoesNotAnswerIs7) {
    daemon_.pause();
    const auto listed = tool({"list", "-t", "1"});
    daemon_.resume();
    EXPECT_EQ(listed.output, "tarn: *: Request timed out (the bus does not answer)\n");
    EXPECT_EQ(listed.status, 7);
}

TEST_F(CliWithHorn, ListEndsQuietlyWhenItsReaderHasGone) {
    const broken_pipe gone;
    for (const std::string before : {"", "trap '' PIPE; "}) {
        const auto left = shell(before + "exec \"$0\" list 2>&1 >&9");
        EXPECT_EQ(left.output, "") << before;
        EXPECT_EQ(left.status, 0) << before;
    }
}

TEST_F(CliWithHorn, ListThatCannotBeWrittenIsAFailure) {
    const auto full = shell("exec \"$0\" list 2>&1 >/dev/full");
    EXPECT_EQ(full.output, "tarn: cannot write the output\n");
    EXPECT_EQ(full.status, 1);
}

TEST_F(Cli, SendingWithoutAListenerSucceedsAndPrintsNothing) {
    const auto sent = tool({"send", "news", R"({"n": 1})"});
    EXPECT_EQ(sent.output, "");
    EXPECT_EQ(sent.status, 0);
}

TEST_F(Cli, SendingAnEventOfTheDaemonsIs6) {
    const auto refused = tool({"send", "ubus.object.add", R"({"id": 1, "path": "fake"})"});
    EXPECT_EQ(refused.output, "tarn: ubus.object.add: Permission denied\n");
    EXPECT_EQ(refused.status, 6);
}

TEST_F(Cli, SendingWithoutABusIs255) {
    daemon_.stop();
    EXPECT_EQ(tool({"send", "news"}).status, 255);
}

TEST(CliUsage, SendingWhatIsNoJsonIs12) {
    expect_usage_error({"send", "news", "[1]"}, "the arguments must be a JSON object", 12);
    const auto empty = tool_with_input("", {"send", "news", "-"});
    EXPECT_EQ(empty.output, "tarn: no JSON on standard input\nTry 'tarn --help'.\n");
    EXPECT_EQ(empty.status, 12);
}

} // namespace
} // namespace tarn::test
