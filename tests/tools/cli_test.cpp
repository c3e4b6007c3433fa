/// tarn call as a user meets it, and wrong usage: output, error text and exit status.
#include "tools/tool.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <regex>

namespace tarn::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class CliWithPeer : public Cli {
protected:
    void SetUp() override { peer_.wait_for_line("peer: ready"); }

    child_process peer_{{TARN_TEST_PEER}};
};

TEST_F(CliWithService, PrintsAReplyIndented) {
    const auto echoed = tool({"call", "demo", "echo", R"({"msg": "hi", "list": [1, true]})"});
    EXPECT_EQ(echoed.output, "{\n  \"list\": [\n    1,\n    true\n  ],\n  \"msg\": \"hi\"\n}\n");
    EXPECT_EQ(echoed.status, 0);
}

TEST_F(CliWithService, PrintsEveryReplyOnALineOfItsOwnWithS) {
    const auto twice = tool({"call", "-s", "demo", "twice"});
    EXPECT_EQ(twice.output, "{\"i\":1}\n{\"i\":2}\n");
    EXPECT_EQ(twice.status, 0);
}

TEST_F(CliWithService, EveryKindOfValueSurvivesTheWayThereAndBack) {
    const std::string text =
        R"({"a":1,"a":-2,"b":5000000000,"c":1.5,"d":[{"e":[]},false],"f":"x"})";
    EXPECT_EQ(tool({"call", "demo", "echo", text, "-s"}).output, text + "\n");
}

TEST_F(CliWithService, NullSurvivesTheWayThereAndBackAtAnyDepth) {
    const std::string text = R"({"a":null,"b":[null,{"c":null},1],"d":{"e":[[null]]}})";
    EXPECT_EQ(tool({"call", "demo", "echo", text, "-s"}).output, text + "\n");
}

TEST_F(CliWithService, TheLargestAndTheSmallestIntegerSurviveTheWayThereAndBack) {
    const std::string text = R"({"a":[9223372036854775807,{"b":-9223372036854775808}]})";
    EXPECT_EQ(tool({"call", "demo", "echo", text, "-s"}).output, text + "\n");
}

TEST_F(CliWithService, ADashReadsTheJsonFromStandardInput) {
    const std::string text = R"({"a":"it's \"here\"","b":[1,null]})";
    const auto echoed = tool_with_input(text + "\n", {"call", "demo", "echo", "-", "-s"});
    EXPECT_EQ(echoed.output, text + "\n");
    EXPECT_EQ(echoed.status, 0);
    EXPECT_EQ(tool_with_input(text, {"call", "-s", "--", "demo", "echo", "-"}).output, text + "\n");
}

TEST_F(CliWithService, StandardInputMayBeLongerThanAPipeHolds) {
    const std::string text = "{\"a\":\"" + std::string(100000, 'x') + "\"}";
    EXPECT_EQ(tool_with_input(text, {"call", "demo", "echo", "-", "-s"}).output, text + "\n");
}

TEST_F(CliWithService, StandardInputIsLeftAloneWithoutADash) {
    const auto left =
        run({"/bin/sh", "-c", "printf kept | { \"$0\" call demo quit && cat; }", TARN_TEST_TOOL});
    EXPECT_EQ(left.output, "kept");
    EXPECT_EQ(left.status, 0);
}

TEST_F(CliWithService, OptionsMayStandAnywhere) {
    for (const auto& words :
         std::vector<std::vector<std::string>>{{"-s", "call", "demo", "twice"},
                                               {"-t", "20", "-s", "call", "demo", "twice"},
                                               {"call", "-t", "20", "demo", "-s", "twice"},
                                               {"call", "demo", "twice", "-s", "-t20"},
                                               {"-S", "call", "demo", "twice"},
                                               {"-s", "--", "call", "demo", "twice"}}) {
        const auto twice = tool(words);
        EXPECT_EQ(twice.output, "{\"i\":1}\n{\"i\":2}\n");
        EXPECT_EQ(twice.status, 0);
    }
    EXPECT_EQ(tool({"-t", "5", "wait", "demo"}).status, 0);
}

TEST_F(CliWithService, OfALimitGivenTwiceTheLastCounts) {
    const auto late = tool({"-t", "0", "call", "demo", "late", R"({"ms": 600000})", "-t1"});
    EXPECT_EQ(late.status, 4);
}

TEST_F(CliWithService, WhatIsPrintedOfAFailureGoesToStandardError) {
    const auto silent =
        run({"/bin/sh", "-c", "exec \"$0\" call demo deny 2>/dev/null", TARN_TEST_TOOL});
    EXPECT_EQ(silent.output, "");
    EXPECT_EQ(silent.status, 16);
}

TEST_F(CliWithService, ACallWithoutDataPrintsNothing) {
    const auto quit = tool({"call", "demo", "quit"});
    EXPECT_EQ(quit.output, "");
    EXPECT_EQ(quit.status, 0);
}

TEST_F(CliWithService, ARefusalIsTenAndItsStatus) {
    const auto denied = tool({"call", "demo", "deny"});
    EXPECT_EQ(denied.output, "tarn: demo.deny: Permission denied\n");
    EXPECT_EQ(denied.status, 16);
}

TEST_F(CliWithService, AnUnknownMethodIs13) {
    const auto unknown = tool({"call", "demo", "other"});
    EXPECT_EQ(unknown.output, "tarn: demo.other: Method not found\n");
    EXPECT_EQ(unknown.status, 13);
}

TEST_F(CliWithService, AnAnswerThatDoesNotComeInTimeIs4) {
    const auto late = tool({"call", "demo", "late", R"({"ms": 600000})", "-t", "1"});
    EXPECT_EQ(late.output, "tarn: demo.late: Request timed out\n");
    EXPECT_EQ(late.status, 4);
}

TEST_F(CliWithService, ALimitOfZeroIsNoneAndAHugeOneIsTaken) {
    EXPECT_EQ(tool({"call", "demo", "late", R"({"ms": 1})", "-t", "0"}).status, 0);
    EXPECT_EQ(tool({"call", "demo", "late", R"({"ms": 1})", "-t", "9223372036854775807"}).status,
              0);
}

TEST_F(CliWithService, OutputThatCannotBeWrittenIsAFailure) {
    child_process child(
        {"/bin/sh", "-c", "exec \"$0\" call demo twice >/dev/full 2>/dev/null", TARN_TEST_TOOL});
    EXPECT_EQ(child.wait(), 1);
}

TEST_F(CliWithPeer, AReplyIsPrintedWhileTheCallIsStillPending) {
    child_process call(command_line({"call", "peer", "tell", "-s", "-t", "0"}));
    EXPECT_EQ(call.wait_for_line("{"), "{\"i\":1}");
    EXPECT_EQ(call.wait_for_line("{"), "{\"i\":2}");
    call.kill(SIGTERM);
    EXPECT_EQ(call.wait(), 128 + SIGTERM);
}

TEST_F(CliWithPeer, TheRepliesBeforeATimeOutAreSeen) {
    const auto late = tool({"call", "peer", "tell", "-s", "-t", "2"});
    EXPECT_EQ(late.output, "{\"i\":1}\n{\"i\":2}\ntarn: peer.tell: Request timed out\n");
    EXPECT_EQ(late.status, 4);
}

TEST_F(CliWithPeer, TheRepliesBeforeARefusalAreSeen) {
    const auto refused = tool({"call", "peer", "tell_refuse", "-s"});
    EXPECT_EQ(refused.output, "{\"i\":1}\n{\"i\":2}\ntarn: peer.tell_refuse: Permission denied\n");
    EXPECT_EQ(refused.status, 16);
}

TEST_F(CliWithPeer, TheRepliesBeforeTheLossOfTheBusAreSeen) {
    child_process call(command_line({"call", "peer", "tell", "-s", "-t", "0"}));
    call.wait_for_line("{\"i\":2}");
    daemon_.kill9();
    EXPECT_EQ(call.read_rest(), "tarn: peer.tell: Connection failed\n");
    EXPECT_EQ(call.wait(), 20);
}

TEST_F(CliWithPeer, OutputThatCannotBeWrittenEndsAPendingCall) {
    child_process call(
        {"/bin/sh", "-c", "exec \"$0\" call peer tell -t 0 2>&1 >/dev/full", TARN_TEST_TOOL});
    EXPECT_EQ(call.read_rest(), "tarn: cannot write the output\n");
    EXPECT_EQ(call.wait(), 1);
}

TEST_F(Cli, AnUnknownObjectIs14) {
    const auto unknown = tool({"call", "nobody", "echo"});
    EXPECT_EQ(unknown.output, "tarn: nobody.echo: Not found\n");
    EXPECT_EQ(unknown.status, 14);
}

TEST_F(Cli, NoBusIs3) {
    daemon_.stop();
    const auto none = tool({"call", "demo", "echo"});
    EXPECT_EQ(none.output, "tarn: cannot connect to the bus\n");
    EXPECT_EQ(none.status, 3);
}

TEST_F(Cli, ABusThatDoesNotAnswerIsGivenUpToo) {
    daemon_.pause();
    const auto stuck = tool({"call", "demo", "echo", "-t", "1"});
    daemon_.resume();
    EXPECT_EQ(stuck.output, "tarn: demo.echo: Request timed out (the bus does not answer)\n");
    EXPECT_EQ(stuck.status, 4);
}

TEST(CliUsage, HelpIsPrintedWhereverItIsAskedFor) {
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"--help"}, {"-h"}, {"call", "--help"}, {"wait", "x", "-h"}, {"-s", "-h", "call"}}) {
        const auto help = tool(words);
        EXPECT_THAT(help.output, StartsWith("tarn: the ubus message bus from the command line.\n"));
        EXPECT_THAT(help.output, HasSubstr("Exit status:"));
        EXPECT_EQ(help.status, 0);
    }
}

TEST(CliUsage, TheManualHasEveryCommandAndOptionOfTheHelp) {
    std::ifstream file(TARN_TEST_MANUAL);
    const std::string manual{std::istreambuf_iterator<char>(file), {}};
    const std::string help = tool({"--help"}).output;
    int found = 0;
    const std::regex named("\\n  tarn ([a-z]+)| (-[a-zA-Z])\\b");
    for (std::sregex_iterator name(help.begin(), help.end(), named), end; name != end; ++name) {
        const std::string command = (*name)[1];
        EXPECT_THAT(manual, HasSubstr(command.empty() ? "\\" + (*name)[2].str()
                                                      : ".SY \"tarn " + command + "\"\n"));
        ++found;
    }
    EXPECT_GT(found, 7);
}

TEST(CliUsage, VersionIsThatOfTheLibrary) {
    const auto version = tool({"--version"});
    EXPECT_EQ(version.output, "tarn " TARN_TEST_VERSION "\n");
    EXPECT_EQ(version.status, 0);
}

TEST(CliUsage, CommandsThatAreNoneAreWrongUsage) {
    expect_usage_error({}, "no command");
    expect_usage_error({"-s"}, "no command");
    expect_usage_error({"--"}, "no command");
    expect_usage_error({"hear"}, "unknown command 'hear'");
    expect_usage_error({"-S", "hear", "call"}, "unknown command 'hear'");
    expect_usage_error({"-s", "hear", "call"}, "unknown command 'hear'");
    expect_usage_error({"-"}, "unknown command '-'");
    expect_usage_error({"--", "--help"}, "unknown command '--help'");
}

TEST(CliUsage, TooFewOrTooManyWordsAreWrongUsage) {
    const std::string call = "call takes PATH METHOD [JSON] [-t SECONDS] [-s]";
    expect_usage_error({"call", "demo"}, call);
    expect_usage_error({"call", "demo", "echo", "{}", "more"}, call);
    expect_usage_error({"list", "demo", "more"}, "list takes [PATTERN] [-v] [-s] [-t SECONDS]",
                       254);
    expect_usage_error({"send"}, "send takes ID [JSON] [-t SECONDS]", 254);
    expect_usage_error({"send", "x", "{}", "more"}, "send takes ID [JSON] [-t SECONDS]", 254);
    expect_usage_error({"subscribe"}, "subscribe takes PATH... [-s] [-T] [-v] [-t SECONDS]", 254);
    expect_usage_error({"monitor", "more"},
                       "monitor takes [-m TYPE]... [-M r|t] [-s] [-T] [-v] [-t SECONDS]", 254);
    expect_usage_error({"wait"}, "wait takes PATH... [-t SECONDS]", 254);
    expect_usage_error({"wait", "demo", "-s"}, "wait takes PATH... [-t SECONDS]", 254);
}

TEST(CliUsage, AnEmptyPathIsWrongUsage) {
    expect_usage_error({"call", "", "echo"}, "no object has an empty path");
    expect_usage_error({"list", ""}, "no object has an empty path", 254);
    expect_usage_error({"listen", ""}, "no event matches an empty pattern", 254);
    expect_usage_error({"subscribe", "demo", ""}, "no object has an empty path", 254);
    expect_usage_error({"wait", "demo", ""}, "no object has an empty path", 254);
}

TEST(CliUsage, LimitsThatAreNoNumberOfSecondsAreWrongUsage) {
    expect_usage_error({"call", "demo", "echo", "-t"}, "-t needs a number of seconds");
    for (const std::string limit : {"", "x", "1x", "1.5", "-1", "99999999999999999999", "--"}) {
        expect_usage_error({"call", "demo", "echo", "-t", limit},
                           "'" + limit + "' is no number of seconds");
    }
    expect_usage_error({"-t=1", "call", "demo", "echo"}, "'=1' is no number of seconds");
    expect_usage_error({"-t", "call", "demo", "echo"}, "'call' is no number of seconds");
}

TEST(CliUsage, OptionsOfOtherCommandsAreWrongUsage) {
    expect_usage_error({"call", "demo", "echo", "-T"}, "call takes no -T");
    expect_usage_error({"list", "-T"}, "list takes no -T", 254);
    expect_usage_error({"listen", "-m", "invoke"}, "listen takes neither -m nor -M", 254);
    expect_usage_error({"call", "demo", "echo", "-Mr"}, "call takes neither -m nor -M");
}

TEST(CliUsage, WhatTheMonitorIsToShowHasToExist) {
    expect_usage_error({"monitor", "-m", "invoke", "-m", "call"},
                       "there is no type of message 'call'", 254);
    expect_usage_error({"monitor", "-m", ""}, "there is no type of message ''", 254);
    expect_usage_error({"monitor", "-M", "x"},
                       "-M takes r (received by the daemon) or t (transmitted by it), not 'x'");
    expect_usage_error({"monitor", "-m"}, "-m needs a type of message");
    expect_usage_error({"monitor", "-M"}, "-M needs r or t");
}

TEST(CliUsage, ASocketWhereUbusTakesOneIsExplained) {
    expect_usage_error({"-s", "/tmp/ubus.sock", "list"},
                       "unknown command '/tmp/ubus.sock' (-s takes no socket)");
}

TEST(CliUsage, UnknownOptionsAreWrongUsageExceptBehindTheirEnd) {
    expect_usage_error({"call", "demo", "echo", "-x"}, "unknown option '-x'");
    expect_usage_error({"-x", "call", "demo", "echo"}, "unknown option '-x'");
    expect_usage_error({"call", "demo", "echo", "-sx"}, "unknown option '-sx'");
    expect_usage_error({"--sockets", "call", "demo", "echo"}, "unknown option '--sockets'");
    expect_usage_error({"call", "--", "demo", "echo", "-x"},
                       "parse error at line 1, column 2: syntax error while parsing value - "
                       "invalid number; expected digit after '-'; last read: '-x'");
}

TEST(CliUsage, JsonThatNoMessageCanHoldIsWrongUsage) {
    expect_usage_error({"call", "demo", "echo", "[1]"}, "the arguments must be a JSON object");
    expect_usage_error({"call", "demo", "echo", R"({"a": {"b": [1, 9223372036854775808]}})"},
                       "a.b[1]: the integer 9223372036854775808 is beyond the signed 64 bits of "
                       "the bus, -9223372036854775808 to 9223372036854775807");
}

TEST(CliUsage, StandardInputWithoutAJsonObjectIsWrongUsage) {
    const auto refusal = [](const std::string& input) {
        const auto result = tool_with_input(input, {"call", "demo", "echo", "-"});
        EXPECT_EQ(result.status, 2);
        return result.output.substr(0, result.output.find('\n'));
    };
    EXPECT_EQ(refusal(""), "tarn: no JSON on standard input");
    EXPECT_EQ(refusal(" \n\t\r\n"), "tarn: no JSON on standard input");
    EXPECT_THAT(refusal("{\n\"a\": nothing}"),
                StartsWith("tarn: parse error at line 2, column 7: "));
    EXPECT_THAT(refusal("{} {}"), StartsWith("tarn: parse error at line 1, column 4: "));
    EXPECT_EQ(refusal("null"), "tarn: the arguments must be a JSON object");
}

TEST(CliUsage, StandardInputWithANulByteIsWrongUsage) {
    const auto result = shell(R"(printf '{"a":1}\0{"b":2}' | "$0" call demo echo - 2>&1)");
    EXPECT_EQ(result.output, "tarn: the JSON text holds a NUL byte\nTry 'tarn --help'.\n");
    EXPECT_EQ(result.status, 2);
}

TEST(CliUsage, StandardInputThatCannotBeReadIsAFailure) {
    const auto folder =
        run({"/bin/sh", "-c", "exec \"$0\" call demo echo - </ 2>&1", TARN_TEST_TOOL});
    EXPECT_EQ(folder.output, "tarn: cannot read standard input: Is a directory\n");
    EXPECT_EQ(folder.status, 1);
    const auto closed =
        run({"/bin/sh", "-c", "exec \"$0\" call demo echo - <&- 2>&1", TARN_TEST_TOOL});
    EXPECT_EQ(closed.output, "tarn: cannot read standard input: Bad file descriptor\n");
    EXPECT_EQ(closed.status, 1);
}

} // namespace
} // namespace tarn::test
