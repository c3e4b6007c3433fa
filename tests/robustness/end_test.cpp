/// The end of the process at bad moments: no crash, no hang, the exit status as given. Every case
/// runs TARN_TEST_ROUNDS times (a few without).
#include "rounds.h"

#include "support/brief_end.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

using namespace tarn::test;
using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

constexpr int as_given = 7;

class ProcessEnd : public ::testing::Test {
protected:
    void ends(const std::string& way) {
        auto longest = 0ms;
        const int times = rounds(3);
        for (int i = 0; i < times; ++i) {
            const auto begin = clock::now();
            child_process process({TARN_TEST_ENDING, way});
            EXPECT_EQ(process.read_rest(), "");
            ASSERT_EQ(process.wait(), as_given) << "in round " << i;
            longest = std::max(longest, std::chrono::duration_cast<std::chrono::milliseconds>(
                                            clock::now() - begin));
        }
        std::cout << way << ": " << times << " processes ended as they should, the longest run "
                  << longest.count() << " ms\n";
    }

    ProcessEnd() { end_briefly(); }

    bus_daemon daemon_;
};

TEST_F(ProcessEnd, MainExits) {
    ends("main");
}

TEST_F(ProcessEnd, MainReturns) {
    ends("return");
}

TEST_F(ProcessEnd, AResultHandlerExits) {
    ends("handler");
}

TEST_F(ProcessEnd, AStateSubscriberExits) {
    ends("subscriber");
}

TEST_F(ProcessEnd, AnotherThreadExitsWhileOthersCallTheClient) {
    ends("thread");
}

TEST_F(ProcessEnd, MainExitsWhileAThreadReleasesSubscriptions) {
    ends("release");
}

TEST_F(ProcessEnd, MainExitsDuringCancel) {
    ends("cancel");
}

TEST_F(ProcessEnd, ForkedChildrenExitWhileThreadsWork) {
    // What only a thread referred to that the child does not have looks lost to the leak checker.
    const char* const given = std::getenv("ASAN_OPTIONS");
    const std::string options = given != nullptr ? given : "";
    ::setenv("ASAN_OPTIONS", (options + ":detect_leaks=0").c_str(), 1);
    ends("fork");
}

TEST_F(ProcessEnd, ComesAtOnceWhenTheLoopDiesBeforeTheClient) {
    child_process process({TARN_TEST_ENDING, "loop"});
    EXPECT_EQ(process.wait(), 128 + SIGABRT);
}

TEST_F(ProcessEnd, ComesWithinFiveSecondsWhileTheDaemonIsStopped) {
    child_process process({TARN_TEST_ENDING, "stopped", std::to_string(daemon_.pid())});
    const auto number_in = [](const std::string& line) {
        return std::stol(line.substr(line.find("took ") + 5));
    };
    const long limits = number_in(process.wait_for_line("ending: limits"));
    const long cancelling = number_in(process.wait_for_line("ending: cancel"));
    process.wait_for_line("ending: exit");
    const auto begin = clock::now();
    EXPECT_EQ(process.wait(), as_given);
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begin).count();
    // So that it can be ended.
    ::kill(daemon_.pid(), SIGCONT);
    EXPECT_GE(limits, 2000);
    EXPECT_LT(limits, 3000);
    EXPECT_LT(cancelling, 500);
    EXPECT_LT(took, 5000);
    std::cout << "daemon stopped: two limits of 1 s took " << limits << " ms, cancel() "
              << cancelling << " ms, the end " << took << " ms\n";
}

} // namespace
