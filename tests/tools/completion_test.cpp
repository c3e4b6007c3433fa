/// bash completion of the command line of tarn.
#include "tools/tool.h"

namespace tarn::test {
namespace {

/// What bash offers at the end of `words`, the last of which is being written; a line each.
std::string offered(const std::vector<std::string>& words) {
    std::vector<std::string> line{
        "/bin/bash",
        "-c",
        "set -u; source \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); "
        "complete -p tarn | grep -qx 'complete -F _tarn tarn' || exit 1; "
        "COMPREPLY=(); _tarn \"$1\"; printf '%s\\n' \"${COMPREPLY[@]}\"",
        "bash",
        TARN_TEST_COMPLETION,
        TARN_TEST_TOOL};
    line.insert(line.end(), words.begin(), words.end());
    line[2] = "exec 2>&1; " + line[2];
    return run(line).output;
}

TEST(Completion, OffersTheCommands) {
    EXPECT_EQ(offered({""}), "call\nlist\nlisten\nmonitor\nsend\nsubscribe\nwait\n");
    EXPECT_EQ(offered({"-t", "5", "li"}), "list\nlisten\n");
    EXPECT_EQ(offered({"-sv", "su"}), "subscribe\n");
}

TEST(Completion, OffersTheOptionsOfACommand) {
    EXPECT_EQ(offered({"listen", "-"}), "--help\n-s\n-S\n-t\n-T\n-v\n");
    EXPECT_EQ(offered({"monitor", "-"}), "--help\n-m\n-M\n-s\n-S\n-t\n-T\n-v\n");
    EXPECT_EQ(offered({"--v"}), "--version\n");
    EXPECT_EQ(offered({"list", "--", "-"}), "\n");
}

TEST(Completion, OffersTheValuesOfOptions) {
    EXPECT_EQ(offered({"monitor", "-m", "no"}), "notify\n");
    EXPECT_EQ(offered({"monitor", "-sm", "un"}), "unsubscribe\n");
    EXPECT_EQ(offered({"monitor", "-M", ""}), "r\nt\n");
    EXPECT_EQ(offered({"wait", "-t", ""}), "\n");
}

TEST_F(CliWithHorn, CompletionOffersObjectsOfTheLiveBus) {
    start_service();
    for (const std::string command : {"call", "list", "subscribe", "wait", "wait_for"}) {
        EXPECT_EQ(offered({command, ""}), "demo\nhorn\n") << command;
    }
    EXPECT_EQ(offered({"wait", "demo", "h"}), "horn\n");
    EXPECT_EQ(offered({"call", "-t", "5", "-s", "d"}), "demo\n");
    EXPECT_EQ(offered({"list", "demo", ""}), "\n");
}

TEST_F(CliWithHorn, CompletionOffersTheMethodsOfTheObject) {
    EXPECT_EQ(offered({"call", "horn", ""}), "sound\nask\ntypes\nflood\nquiet\n");
    EXPECT_EQ(offered({"-s", "call", "-t", "5", "horn", "s"}), "sound\n");
    EXPECT_EQ(offered({"call", "horn", "sound", ""}), "\n");
    EXPECT_EQ(offered({"call", "absent", ""}), "\n");
}

TEST_F(Cli, CompletionQuotesWhatTheShellWouldTakeApart) {
    const auto odd = start_horn("two words;$HOME");
    EXPECT_EQ(offered({"list", ""}), "two\\ words\\;\\$HOME\n");
}

TEST_F(Cli, CompletionIsQuietWithoutABus) {
    daemon_.stop();
    EXPECT_EQ(offered({"call", ""}), "\n");
    EXPECT_EQ(offered({"call", "horn", ""}), "\n");
}

TEST_F(Cli, CompletionIsQuietAndEndsOnABusThatDoesNotAnswer) {
    daemon_.pause();
    EXPECT_EQ(offered({"call", ""}), "\n");
    daemon_.resume();
}

} // namespace
} // namespace tarn::test
