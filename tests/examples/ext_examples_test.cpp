/// The small programs on tarn::ext do what they say, and fail when they should.
#include "support/bus_address.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"
#include "support/temporary_folder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::test {
namespace {

class ExtExamples : public ::testing::Test {
protected:
    /// Starts the object of that name and returns once it can be called; nothing for "".
    void start_service(const std::string& object) {
        if (object == "demo") {
            service_ = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_SERVICE});
            service_->wait_for_line("demo_service: ready");
        } else if (!object.empty()) {
            service_ = std::make_unique<child_process>(
                std::vector<std::string>{TARN_TEST_EXAMPLES "/" + object});
            service_->wait_for_line(object + ": ready");
        }
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

    bus_daemon daemon_;
    std::unique_ptr<child_process> service_;
};

/// One run of a program that ends by itself.
struct example_run {
    const char* name; ///< of the case
    const char* program;
    const char* service; ///< that it calls; "" for none
    const char* prints;
    int status;
};
void PrintTo(const example_run& run, std::ostream* out) {
    *out << run.name;
}

class ExtExampleRun : public ExtExamples, public ::testing::WithParamInterface<example_run> {};

TEST_P(ExtExampleRun, Ends) {
    const example_run& run = GetParam();
    start_service(run.service);
    child_process program = start(run.program);
    EXPECT_EQ(program.read_rest(), run.prints);
    EXPECT_EQ(program.wait(), run.status);
}

constexpr example_run runs[] = {
    {"HelloPrintsItsEcho", "hello", "demo", "hello\n", 0},
    {"HelloFailsWithoutItsObject", "hello", "", "demo.echo: Not found\n", 1},
    {"TheTypedCallPrintsTheStructureOfItsReply", "typed_call", "calculator", "7 / 2 = 3, rest 1\n",
     0},
    {"TheTypedCallFailsWithoutItsObject", "typed_call", "", "calculator.divide: Not found\n", 1},
    {"StructuresComeBackAndAMismatchNamesItsField", "structures", "demo",
     "lan: 2 ports, lan2 is down, uplink wan\n"
     "Parsing message data failed: ports[0].name: expected a signed 32-bit integer, found a "
     "string\n",
     0},
    {"StructuresFailWithoutTheirObject", "structures", "", "demo.echo: Not found\n", 1},
    {"SeveralRepliesArePrintedAsTheyArrive", "several_replies", "demo", "1\n2\nthat was all\n", 0},
    {"SeveralRepliesFailWithoutTheirObject", "several_replies", "", "demo.twice: Not found\n", 1},
    {"TheWorkersFuturesGetBothAnswers", "future", "demo", "waiting\nhello world\n", 0},
    {"TheWorkersFutureThrowsTheFailure", "future", "", "waiting\nworker: Not found\n", 1},
#ifdef TARN_TEST_COROUTINES
    {"TheCoroutinePrintsBothEchoes", "coroutine", "demo", "hello\nhello again\n", 0},
    {"TheCoroutineFailsWhenItsCallDoes", "coroutine", "", "Not found\n", 1},
#endif
    {"CallsEndByLinkTimeLimitAndCancel", "cancel", "demo",
     "released: no report\ntime limit: Request timed out\ncancel: Aborted\nnothing is pending\n",
     0},
    {"CancelFailsWithoutItsObject", "cancel", "", "released: no report\ndemo.late: Not found\n", 1},
    {"OfAHundredCallsThreeAreInFlight", "in_flight_limit", "demo",
     "3 in flight, 97 waiting\n100 answered, 0 failed\n", 0},
    {"TheCallsInFlightFailWithoutTheirObject", "in_flight_limit", "",
     "3 in flight, 97 waiting\ndemo.echo: Not found\n0 answered, 100 failed\n", 1},
};
INSTANTIATE_TEST_SUITE_P(Of, ExtExampleRun, ::testing::ValuesIn(runs),
                         [](const ::testing::TestParamInfo<example_run>& run) {
                             return std::string(run.param.name);
                         });

TEST_F(ExtExamples, ASignalEndsTheWorkersWait) {
    start_service("demo");
    service_->pause(); // it does not answer
    child_process program = start("future");
    program.wait_for_line("waiting");
    program.kill(SIGTERM);
    EXPECT_EQ(program.read_rest(), "worker: Aborted\n");
    EXPECT_EQ(program.wait(), 128 + SIGTERM);
}

TEST_F(ExtExamples, ReconnectComesBackToABusThatWasAway) {
    daemon_.stop();
    child_process program = start("reconnect");
    program.wait_for_line("attempt 1 in 1 s");
    for (int outage = 0; outage < 2; ++outage) {
        daemon_.start();
        program.wait_for_line("connected");
        daemon_.kill9();
        program.wait_for_line("disconnected");
    }
    program.kill(SIGTERM);
    EXPECT_EQ(program.wait(), 0);
}

TEST_F(ExtExamples, TheCalculatorServesUntilItIsEnded) {
    child_process calculator = start("calculator");
    calculator.wait_for_line("calculator: ready");
    EXPECT_EQ(call("calculator divide '{\"a\": 7, \"b\": 2}'"), "0 {\"rest\":1,\"whole\":3}\n");
    EXPECT_EQ(call("calculator divide '{\"a\": 7, \"b\": 0}'"),
              "12 tarn: calculator.divide: Invalid argument\n");
    EXPECT_EQ(call("calculator divide '{\"a\": -2147483648, \"b\": -1}'"),
              "12 tarn: calculator.divide: Invalid argument\n");
    EXPECT_EQ(call("calculator add '{\"a\": 3000000000}'"), "0 {\"result\":3000000001}\n");
    EXPECT_EQ(call("calculator add '{\"a\": 9223372036854775807}'"),
              "12 tarn: calculator.add: Invalid argument\n");
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
    EXPECT_EQ(call("slow sum '{\"numbers\": [9223372036854775807, 1]}'"),
              "0 {\"result\":-9223372036854775808}\n");
    slow.kill(SIGINT);
    EXPECT_EQ(slow.wait(), 0);
}

TEST(ExtExamplesWithoutABus, FailAtOnce) {
    const temporary_folder folder;
    const bus_address nowhere(folder.path() + "/ubus.sock");
    std::vector<std::string> examples{"hello",  "typed_call", "structures",     "several_replies",
                                      "future", "cancel",     "in_flight_limit"};
#ifdef TARN_TEST_COROUTINES
    examples.emplace_back("coroutine");
#endif
    for (const std::string& example : examples) {
        SCOPED_TRACE(example);
        child_process program(
            {"/bin/sh", "-c", "exec " TARN_TEST_EXAMPLES "/" + example + " 2>&1"});
        EXPECT_EQ(program.read_rest(), "cannot connect to the bus: Unknown error\n");
        EXPECT_EQ(program.wait(), 1);
    }
}

} // namespace
} // namespace tarn::test
