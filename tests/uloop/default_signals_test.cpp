/// Keeping libubox's hands off the signals that are at their defaults.
#include "uloop/default_signals.h"

#include "support/faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using tarn::misc::default_signals;
using tarn::test::call;
using tarn::test::count_calls;
using tarn::test::intercept;

void of_the_application(int) {}

struct sigaction action_of(int signo) {
    struct sigaction current = {};
    sigaction(signo, nullptr, &current);
    return current;
}

auto installed(int signo) {
    return action_of(signo).sa_handler;
}

/// Leaves the signal at its default, with these flags and a mask, and returns what there is then.
struct sigaction leave_at_default(int signo, int flags) {
    struct sigaction wanted = {};
    wanted.sa_handler = SIG_DFL;
    wanted.sa_flags = flags;
    sigaddset(&wanted.sa_mask, SIGUSR1);
    sigaction(signo, &wanted, nullptr);
    return action_of(signo);
}

/// Whether a child that has ended is there to wait for.
bool a_child_leaves_a_zombie() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    const pid_t found = ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(found == child || errno == ECHILD);
    return found == child;
}

class DefaultSignals : public testing::Test {
protected:
    DefaultSignals() {
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            std::signal(signo, SIG_DFL);
        }
    }
};

TEST_F(DefaultSignals, AStandInIsThereForTheLifeOfTheObject) {
    {
        const default_signals kept;
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            EXPECT_NE(installed(signo), SIG_DFL) << signo;
        }
    }
    for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
        EXPECT_EQ(installed(signo), SIG_DFL) << signo;
    }
}

TEST_F(DefaultSignals, WhatTheApplicationHandlesOrIgnoresIsNeverReplacedNotEvenForAMoment) {
    std::signal(SIGINT, of_the_application);
    std::signal(SIGTERM, of_the_application);
    std::signal(SIGCHLD, of_the_application);
    std::signal(SIGPIPE, SIG_IGN);
    int changes = 0;
    {
        const intercept counted(call::sigaction_install, count_calls(changes));
        const default_signals kept;
    }
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(installed(SIGINT), of_the_application);
    EXPECT_EQ(installed(SIGPIPE), SIG_IGN);
}

TEST_F(DefaultSignals, AHandlerInstalledMeanwhileStays) {
    {
        const default_signals kept;
        std::signal(SIGTERM, of_the_application);
    }
    EXPECT_EQ(installed(SIGTERM), of_the_application);
}

TEST_F(DefaultSignals, TheActionsFoundArePutBackWithTheirFlagsAndMasks) {
    for (const int flags : {0, SA_NOCLDSTOP, SA_NOCLDWAIT | SA_ONSTACK, SA_SIGINFO | SA_RESTART}) {
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            const struct sigaction before = leave_at_default(signo, flags);
            {
                const default_signals kept;
                EXPECT_NE(installed(signo), SIG_DFL) << signo;
            }
            const struct sigaction after = action_of(signo);
            EXPECT_EQ(after.sa_handler, SIG_DFL) << signo;
            EXPECT_EQ(after.sa_flags, before.sa_flags) << signo;
            for (const int masked : {SIGUSR1, SIGUSR2}) {
                EXPECT_EQ(sigismember(&after.sa_mask, masked),
                          sigismember(&before.sa_mask, masked));
            }
        }
    }
}

TEST_F(DefaultSignals, WhatTheApplicationChangesInTheLastMomentIsPutBack) {
    int installs = 0;
    {
        const intercept change(call::sigaction_install, [&installs] {
            if (++installs == 1) {
                leave_at_default(SIGINT, SA_ONSTACK);
            }
            return 0;
        });
        const default_signals kept;
    }
    EXPECT_EQ(installed(SIGINT), SIG_DFL);
    EXPECT_NE(action_of(SIGINT).sa_flags & SA_ONSTACK, 0);
}

TEST_F(DefaultSignals, TheStandInHasTheFlagsOfTheActionThatConcernChildren) {
    constexpr int both = SA_NOCLDSTOP | SA_NOCLDWAIT;
    for (const int flags : {0, SA_NOCLDSTOP, SA_NOCLDWAIT, both}) {
        leave_at_default(SIGCHLD, flags);
        const default_signals kept;
        EXPECT_NE(installed(SIGCHLD), SIG_DFL);
        EXPECT_EQ(action_of(SIGCHLD).sa_flags & both, flags);
    }
}

TEST_F(DefaultSignals, AChildLeavesAZombieOnlyIfItDoesByDefault) {
    {
        const default_signals kept;
        EXPECT_TRUE(a_child_leaves_a_zombie());
    }
    leave_at_default(SIGCHLD, SA_NOCLDWAIT);
    // None, but for emulators that do not heed the flag.
    const bool usually = a_child_leaves_a_zombie();
    {
        const default_signals kept;
        EXPECT_EQ(a_child_leaves_a_zombie(), usually);
    }
    EXPECT_EQ(a_child_leaves_a_zombie(), usually);
}

TEST_F(DefaultSignals, AStandInThatSomebodyPutsBackLaterGoesNextTime) {
    leave_at_default(SIGCHLD, SA_NOCLDWAIT);
    struct sigaction saved = {};
    {
        const default_signals kept;
        saved = action_of(SIGCHLD);
        std::signal(SIGCHLD, of_the_application);
    }
    sigaction(SIGCHLD, &saved, nullptr);
    { const default_signals kept; }
    EXPECT_EQ(installed(SIGCHLD), SIG_DFL);
    EXPECT_NE(action_of(SIGCHLD).sa_flags & SA_NOCLDWAIT, 0);
}

TEST_F(DefaultSignals, TheStandInsDoWhatTheDefaultDoes) {
    const default_signals kept;
    std::raise(SIGCHLD);
    EXPECT_EXIT(std::raise(SIGTERM), testing::KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(std::raise(SIGPIPE), testing::KilledBySignal(SIGPIPE), "");
}

} // namespace
