/// tarn monitor as root meets it.
#include "tools/tool.h"

#include <csignal>
#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

/// Starts the tool and returns once it gets what passes.
std::unique_ptr<child_process> start_monitor(std::vector<std::string> words = {}) {
    words.insert(words.begin(), {"monitor", "-v"});
    auto monitor = std::make_unique<child_process>(command_line(words));
    monitor->wait_for_line("tarn: monitor: registered");
    return monitor;
}

/// The next line that has `text`.
std::string line_with(child_process& monitor, const std::string& text) {
    std::string line;
    do {
        line = monitor.wait_for_line("");
    } while (line.find(text) == std::string::npos);
    return line;
}

TEST_F(CliWithHorn, MonitorPrintsWhatPassesInTheShapeOfUbus) {
    const auto monitor = start_monitor();
    EXPECT_EQ(tool({"call", "horn", "sound", R"({"loud": 1, "text": "hi"})"}).status, 0);
    EXPECT_THAT(monitor->wait_for_line("-> "),
                MatchesRegex("-> [0-9a-f]{8} #[0-9a-f]{8}          hello: \\{\\}"));
    const std::string invoke = " [0-9a-f]{8} #[0-9a-f]{8}         invoke: "
                               "\\{\"objid\":-?[0-9]+,\"method\":\"sound\","
                               "\"data\":\\{\"loud\":1,\"text\":\"hi\"\\}";
    EXPECT_THAT(line_with(*monitor, "invoke"), MatchesRegex("<-" + invoke + "\\}"));
    EXPECT_THAT(line_with(*monitor, "invoke"),
                MatchesRegex("->" + invoke + ",\"user\":\".*\",\"group\":\".*\"\\}"));
    monitor->kill(SIGINT);
    EXPECT_THAT(monitor->read_rest(), ContainsRegex("tarn: [0-9]+ messages\n$"));
    EXPECT_EQ(monitor->wait(), 0);
}

TEST_F(CliWithHorn, MonitorShowsTheTypesThatAreAskedFor) {
    const auto monitor = start_monitor({"-m", "hello", "-m", "lookup"});
    tool({"call", "horn", "quiet"});
    EXPECT_THAT(monitor->wait_for_line(""), HasSubstr(" hello: {}"));
    EXPECT_THAT(monitor->wait_for_line(""), EndsWith(R"( lookup: {"objpath":"horn"})"));
    monitor->kill(SIGINT);
    EXPECT_EQ(monitor->read_rest(), "tarn: 2 messages\n");
}

TEST_F(CliWithHorn, MonitorShowsTheTrafficThatIsAskedFor) {
    const auto received = start_monitor({"-m", "invoke", "-M", "r"});
    const auto transmitted = start_monitor({"-minvoke", "-Mt"});
    tool({"call", "horn", "quiet"});
    EXPECT_THAT(received->wait_for_line(""), StartsWith("<- "));
    EXPECT_THAT(transmitted->wait_for_line(""), StartsWith("-> "));
    for (const auto* monitor : {&received, &transmitted}) {
        (*monitor)->kill(SIGINT);
    }
    EXPECT_EQ(transmitted->read_rest(), "tarn: 1 message\n");
}

TEST_F(CliWithHorn, MonitorPrintsJsonWithS) {
    const auto monitor = start_monitor({"-s", "-m", "lookup"});
    tool({"call", "horn", "quiet"});
    EXPECT_THAT(monitor->wait_for_line("{"),
                MatchesRegex(R"(\{"sent":false,"client":"[0-9a-f]{8}","peer":"[0-9a-f]{8}",)"
                             R"("seq":[0-9]+,"type":"lookup","message":\{"objpath":"horn"\}\})"));
}

TEST_F(Cli, MonitorGoesOnAfterARestartOfTheBus) {
    const auto monitor = start_monitor({"-m", "invoke"});
    daemon_.restart();
    monitor->wait_for_line("tarn: monitor: registered");
    tool({"send", "news"});
    EXPECT_THAT(monitor->wait_for_line("<-"), HasSubstr(R"("method":"send")"));
}

} // namespace
} // namespace tarn::test
