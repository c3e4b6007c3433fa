/// The four signals that uloop takes while nobody else wants them.
#include "bus.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "uloop_fixture.h"

namespace {

using ubox_test::timer;
using ubox_test::uloop_test;

constexpr int all_signals[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};

void of_the_application(int) {}
void with_information(int, siginfo_t*, void*) {}

using handler = void (*)(int);

handler handler_of(int number) {
    struct sigaction action {};
    EXPECT_EQ(sigaction(number, nullptr, &action), 0);
    return action.sa_handler;
}

// Starts without a loop, with everything at its default.
class UloopSignal : public uloop_test {
protected:
    UloopSignal() {
        uloop_done();
        std::signal(SIGPIPE, SIG_DFL);
        for (const int number : all_signals) {
            EXPECT_EQ(handler_of(number), SIG_DFL);
        }
    }
    ~UloopSignal() override {
        for (const int number : all_signals) {
            std::signal(number, SIG_DFL);
        }
    }
};

TEST_F(UloopSignal, InitTakesThoseThatAreDefault) {
    ASSERT_EQ(uloop_init(), 0);
    for (const int number : {SIGINT, SIGTERM, SIGCHLD}) {
        EXPECT_NE(handler_of(number), SIG_DFL) << number;
        EXPECT_NE(handler_of(number), SIG_IGN) << number;
    }
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);
}

TEST_F(UloopSignal, InitLeavesHandlersOfTheApplication) {
    for (const int taken : all_signals) {
        std::signal(taken, of_the_application);
        ASSERT_EQ(uloop_init(), 0);
        for (const int number : all_signals) {
            EXPECT_EQ(handler_of(number) == of_the_application, number == taken) << number;
            EXPECT_NE(handler_of(number), SIG_DFL) << number;
        }
        uloop_done();
        EXPECT_EQ(handler_of(taken), of_the_application);
        std::signal(taken, SIG_DFL);
        std::signal(SIGPIPE, SIG_DFL);
    }
}

TEST_F(UloopSignal, InitLeavesHandlersWithInformation) {
    struct sigaction action {};
    action.sa_sigaction = with_information;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTERM, &action, nullptr);
    ASSERT_EQ(uloop_init(), 0);
    uloop_done();
    struct sigaction now {};
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_sigaction, with_information);
}

TEST_F(UloopSignal, InitLeavesIgnoredOnesIgnored) {
    for (const int number : all_signals) {
        std::signal(number, SIG_IGN);
    }
    ASSERT_EQ(uloop_init(), 0);
    for (const int number : all_signals) {
        EXPECT_EQ(handler_of(number), SIG_IGN) << number;
    }
    uloop_done();
    for (const int number : all_signals) {
        EXPECT_EQ(handler_of(number), SIG_IGN) << number;
    }
}

TEST_F(UloopSignal, InitAgainTakesWhatHasBecomeDefault) {
    ASSERT_EQ(uloop_init(), 0);
    for (const int number : all_signals) {
        std::signal(number, SIG_DFL);
    }
    ASSERT_EQ(uloop_init(), 0);
    for (const int number : all_signals) {
        EXPECT_NE(handler_of(number), SIG_DFL) << number;
    }
}

TEST_F(UloopSignal, InitAgainWhileRunningTakesThemToo) {
    ASSERT_EQ(uloop_init(), 0);
    std::signal(SIGTERM, SIG_DFL);
    timer again([](timer&) {
        EXPECT_EQ(uloop_init(), 0);
        EXPECT_NE(handler_of(SIGTERM), SIG_DFL);
        raise(SIGTERM);
    });
    uloop_timeout_set(&again, 0);
    run(SIGTERM);
}

TEST_F(UloopSignal, DoneGivesThoseWithAHandlerBackAndLeavesSigpipeIgnored) {
    ASSERT_EQ(uloop_init(), 0);
    uloop_done();
    for (const int number : {SIGINT, SIGTERM, SIGCHLD}) {
        EXPECT_EQ(handler_of(number), SIG_DFL) << number;
    }
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);
}

TEST_F(UloopSignal, DoneLeavesHandlersSetSinceInit) {
    ASSERT_EQ(uloop_init(), 0);
    for (const int number : all_signals) {
        std::signal(number, of_the_application);
    }
    uloop_done();
    for (const int number : all_signals) {
        EXPECT_EQ(handler_of(number), of_the_application) << number;
    }
}

TEST_F(UloopSignal, DoneGivesBackWhatWasSavedAndRestored) {
    ASSERT_EQ(uloop_init(), 0);
    struct sigaction saved {};
    sigaction(SIGINT, nullptr, &saved);
    std::signal(SIGINT, SIG_DFL);
    sigaction(SIGINT, &saved, nullptr);
    uloop_done();
    EXPECT_EQ(handler_of(SIGINT), SIG_DFL);
}

TEST_F(UloopSignal, SigintEndsTheLoopWhichReturnsItsNumber) {
    ASSERT_EQ(uloop_init(), 0);
    timer interrupt([](timer&) { raise(SIGINT); });
    uloop_timeout_set(&interrupt, 0);
    run(SIGINT);
}

TEST_F(UloopSignal, SigtermEndsTheLoopWhichReturnsItsNumberOnce) {
    ASSERT_EQ(uloop_init(), 0);
    timer terminate([](timer&) { raise(SIGTERM); });
    uloop_timeout_set(&terminate, 0);
    run(SIGTERM);
    timer end([](timer&) { uloop_end(); });
    uloop_timeout_set(&end, 0);
    run();
}

char state_of_thread(pid_t thread) {
    std::ifstream in("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(in, text);
    return text.at(text.rfind(')') + 2);
}

TEST_F(UloopSignal, ThatComesOnAnotherThreadEndsTheLoopsWait) {
    ASSERT_EQ(uloop_init(), 0);
    const auto loop_thread = static_cast<pid_t>(syscall(SYS_gettid));
    std::thread other;
    timer start([&](timer&) {
        other = std::thread([loop_thread] {
            while (state_of_thread(loop_thread) != 'S') {
                std::this_thread::yield();
            }
            raise(SIGINT);
        });
    });
    uloop_timeout_set(&start, 0);
    run(SIGINT);
    other.join();
}

TEST_F(UloopSignal, ThatComesAfterDoneThroughARestoredHandlerIsHarmless) {
    ASSERT_EQ(uloop_init(), 0);
    struct sigaction saved {};
    sigaction(SIGINT, nullptr, &saved);
    uloop_done();
    sigaction(SIGINT, &saved, nullptr);
    raise(SIGINT);
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(UloopSignal, SigpipeKillsNobody) {
    ASSERT_EQ(uloop_init(), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}

pid_t child_that_ends() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    return child;
}

TEST_F(UloopSignal, SigchldCollectsEveryChildOfTheProcess) {
    ASSERT_EQ(uloop_init(), 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_GT(child_that_ends(), 0);
    }
    timer look([](timer& self) {
        // Without a child left there is nothing to wait for; WNOWAIT collects none itself.
        siginfo_t ended{};
        if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD) {
            uloop_end();
        } else {
            uloop_timeout_set(&self, 1);
        }
    });
    uloop_timeout_set(&look, 1);
    run();
}

TEST_F(UloopSignal, SigchldIsLeftAloneWhenSwitchedOff) {
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(handler_of(SIGCHLD), SIG_DFL);
    EXPECT_NE(handler_of(SIGINT), SIG_DFL);
    const pid_t child = child_that_ends();
    ASSERT_GT(child, 0);
    uloop_run_timeout(10);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(UloopSignal, ChildIsTheApplicationsWhenItHandlesSigchld) {
    std::signal(SIGCHLD, of_the_application);
    ASSERT_EQ(uloop_init(), 0);
    const pid_t child = child_that_ends();
    ASSERT_GT(child, 0);
    uloop_run_timeout(10);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

} // namespace
