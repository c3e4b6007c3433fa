/// tarn listen as a user meets it, and what it shares with the other commands that go on.
#include "support/temporary_folder.h"
#include "tools/tool.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <regex>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::test {
namespace {

using ::testing::EndsWith;
using ::testing::MatchesRegex;
using words = std::vector<std::string>;

/// Starts the tool and returns once its patterns are registered with the bus.
std::unique_ptr<child_process> start_listening(const words& given, int patterns = 1) {
    words line{"listen", "-v"};
    line.insert(line.end(), given.begin(), given.end());
    auto listener = std::make_unique<child_process>(command_line(line));
    for (int n = 0; n < patterns; ++n) {
        std::string said;
        do {
            said = listener->wait_for_line("tarn: ");
        } while (said.find(": registered") == std::string::npos);
    }
    return listener;
}

/// Ends the tool as Ctrl-C does, and returns what it has printed.
std::string interrupt(child_process& tool, int signo = SIGINT) {
    tool.kill(signo);
    std::string rest = tool.read_rest();
    EXPECT_EQ(tool.wait(), 0);
    return rest;
}

/// The sum of what lines in `text` say was dropped.
std::uint64_t dropped_in(const std::string& text) {
    const std::regex remark("tarn: ([0-9]+) events? dropped: the output is too slow\n");
    std::uint64_t sum = 0;
    for (std::sregex_iterator found(text.begin(), text.end(), remark), end; found != end; ++found) {
        sum += std::stoull((*found)[1]);
    }
    return sum;
}

TEST_F(Cli, ListenPrintsEveryEventInTheShapeOfUbus) {
    const auto listener = start_listening({});
    tool({"send", "network.interface",
          R"({"action": "ifup", "up": true, "why": {"n": [1, null]}})"});
    tool({"send", "empty"});
    EXPECT_EQ(listener->wait_for_line("{"),
              R"({ "network.interface": {"action":"ifup","up":true,"why":{"n":[1,null]}} })");
    EXPECT_EQ(listener->wait_for_line("{"), R"({ "empty": {} })");
    EXPECT_EQ(interrupt(*listener), "tarn: 2 events\n");
}

TEST_F(Cli, ListenPrintsWhatTheDaemonSays) {
    const auto listener = start_listening({"ubus.object.*"});
    start_service();
    EXPECT_THAT(listener->wait_for_line("{"),
                MatchesRegex(R"(\{ "ubus.object.add": \{"id":-?[0-9]+,"path":"demo"\} \})"));
}

TEST_F(Cli, ListenPrintsTheEventsOfItsPatternsEachOnce) {
    const auto listener = start_listening({"wind.north", "wind.*", "wind.*", "calm"}, 2);
    for (const std::string id : {"storm", "wind.north", "calmer", "wind", "calm"}) {
        tool({"send", id});
    }
    EXPECT_EQ(listener->wait_for_line("{"), R"({ "wind.north": {} })");
    EXPECT_EQ(listener->wait_for_line("{"), R"({ "calm": {} })");
    EXPECT_EQ(interrupt(*listener), "tarn: 2 events\n");
}

TEST_F(Cli, ListenPrintsJsonWithoutSpacesWithS) {
    const auto listener = start_listening({"-s"});
    tool({"send", "news", R"({"n": 1})"});
    EXPECT_EQ(listener->wait_for_line("{"), R"({"news":{"n":1}})");
}

TEST_F(Cli, ListenPutsTheLocalTimeInFrontWithT) {
    ::setenv("TZ", "XYZ-05:45", 1);
    const auto listener = start_listening({"-sT"});
    tool({"send", "news"});
    EXPECT_THAT(listener->wait_for_line("2"),
                MatchesRegex("20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]"
                             "[.][0-9]{3}[+]05:45 \\{\"news\":\\{\\}\\}"));
}

TEST_F(Cli, ListenEndsWithACountOnSigtermToo) {
    const auto listener = start_listening({});
    tool({"send", "news"});
    listener->wait_for_line("{");
    EXPECT_EQ(interrupt(*listener, SIGTERM), "tarn: 1 event\n");
}

TEST_F(Cli, ListenEndsWithItsLimit) {
    const auto listened = tool({"listen", "-t", "1"});
    EXPECT_EQ(listened.output, "tarn: 0 events\n");
    EXPECT_EQ(listened.status, 0);
}

TEST_F(Cli, ListenCanBeEndedWhileTheBusDoesNotAnswer) {
    const auto listener = start_listening({});
    daemon_.pause();
    EXPECT_EQ(interrupt(*listener), "tarn: 0 events\n");
    daemon_.resume();
}

TEST_F(Cli, ListenCanBeEndedWhileTheBusDoesNotEvenGreet) {
    daemon_.pause();
    const auto listened = tool({"listen", "-t", "1"});
    daemon_.resume();
    EXPECT_EQ(listened.output, "tarn: 0 events\n");
    EXPECT_EQ(listened.status, 0);
}

TEST_F(Cli, ListenGoesOnAfterARestartOfTheBusAndSaysSo) {
    const auto listener = start_listening({});
    daemon_.kill9();
    EXPECT_EQ(listener->wait_for_line("tarn"),
              "tarn: the connection to the bus was lost; reconnecting");
    daemon_.start();
    EXPECT_EQ(listener->wait_for_line("tarn"), "tarn: *: registered");
    EXPECT_EQ(listener->wait_for_line("tarn"), "tarn: connected to the bus");
    tool({"send", "news"});
    EXPECT_EQ(listener->wait_for_line("{"), R"({ "news": {} })");
    EXPECT_EQ(interrupt(*listener), "tarn: 1 event\n");
}

TEST_F(Cli, ListenWaitsForTheBusAndSaysSo) {
    daemon_.stop();
    child_process listener(command_line({"listen", "-v"}));
    EXPECT_EQ(listener.wait_for_line("tarn"), "tarn: cannot connect to the bus; waiting for it");
    daemon_.start();
    EXPECT_EQ(listener.wait_for_line("tarn"), "tarn: *: registered");
    EXPECT_EQ(listener.wait_for_line("tarn"), "tarn: connected to the bus");
    EXPECT_EQ(interrupt(listener), "tarn: 0 events\n");
}

TEST_F(CliWithHorn, ListenSaysHowMuchItDroppedWhenItsReaderIsSlow) {
    const auto listener = start_listening({"flood"});
    std::uint64_t sent = 0;
    std::uint64_t printed = 0;
    std::string remarks;
    // Nothing is read during a flood, which is more than the tool and the pipe hold, and less than
    // the daemon keeps for a reader. A tool that gets it late loses nothing; then there is another.
    while (printed == sent) {
        EXPECT_EQ(tool({"call", "horn", "flood", R"({"count": 18000})"}).status, 0);
        sent += 18000;
        std::string line;
        while (line != R"({ "flood": {"n":18000} })") { // the last one is never dropped
            line = listener->wait_for_line("");
            if (line.front() == '{') {
                ++printed;
            } else {
                remarks += line + '\n';
            }
        }
    }
    remarks += interrupt(*listener);
    EXPECT_EQ(dropped_in(remarks), sent - printed) << remarks;
    EXPECT_THAT(remarks, EndsWith("tarn: " + std::to_string(printed) + " events\n"));
}

TEST_F(CliWithHorn, ListenCanBeEndedWhileItsReaderStandsStill) {
    const temporary_folder folder;
    const std::string path = folder.path() + "/pipe";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const int pipe = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    const int writes = ::inotify_init1(IN_CLOEXEC);
    ASSERT_GE(::inotify_add_watch(writes, path.c_str(), IN_MODIFY), 0);
    child_process listener(
        {"/bin/sh", "-c", "exec \"$0\" listen -v 2>&1 >\"$1\"", TARN_TEST_TOOL, path});
    listener.wait_for_line("tarn: *: registered");
    EXPECT_EQ(tool({"call", "horn", "flood", R"({"count": 9000})"}).status, 0);
    pollfd room{pipe, POLLOUT, 0};
    while (::poll(&room, 1, 0) == 1) { // the tool has not filled it yet
        constexpr int limit_ms = 20000;
        pollfd written{writes, POLLIN, 0};
        ASSERT_EQ(::poll(&written, 1, limit_ms), 1) << "the tool writes no more";
        std::array<char, 4096> changes{};
        ASSERT_GT(::read(writes, changes.data(), changes.size()), 0);
    }
    const std::string rest = interrupt(listener);
    EXPECT_THAT(rest, MatchesRegex("tarn: [0-9]+ events\n"));
    ::close(writes);
    ::close(pipe);
}

TEST_F(Cli, ListenEndsAtItsLimitAlthoughItsReaderStandsStill) {
    const child_process sender(
        {"/bin/sh", "-c", "while \"$0\" send news; do :; done", TARN_TEST_TOOL});
    const full_pipe still;
    const auto ended = shell("exec \"$0\" listen -t 2 2>&1 >&9");
    EXPECT_EQ(ended.output, "tarn: 0 events\n");
    EXPECT_EQ(ended.status, 0);
}

TEST_F(Cli, ListenEndsQuietlyWhenItsReaderHasGoneEvenWithoutAnEvent) {
    const broken_pipe gone;
    for (const std::string before : {"", "trap '' PIPE; "}) {
        const auto left = shell(before + "exec \"$0\" listen 2>&1 >&9");
        EXPECT_EQ(left.output, "") << before;
        EXPECT_EQ(left.status, 0) << before;
    }
}

TEST_F(Cli, ListenThatCannotBeWrittenIsAFailure) {
    for (const std::string output : {"/dev/full", "&-"}) {
        child_process listener(
            {"/bin/sh", "-c", "exec \"$0\" listen -v 2>&1 >" + output, TARN_TEST_TOOL});
        listener.wait_for_line("tarn: *: registered");
        tool({"send", "news"});
        EXPECT_EQ(listener.read_rest(), "tarn: cannot write the output\n");
        EXPECT_EQ(listener.wait(), 1);
    }
}

} // namespace
} // namespace tarn::test
