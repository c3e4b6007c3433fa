/// Keeping signal dispositions across a call that changes them.
#include "tarn/misc/unix_signal_actions.h"

#include "support/expect_throw.h"
#include "support/faults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tarn::misc::unix_signal_actions;
using tarn::test::call;
using tarn::test::count_calls;
using tarn::test::expect_throw_msg;
using tarn::test::fail_calls;
using tarn::test::intercept;

void first_handler(int) {}
void second_handler(int) {}

auto installed(int signo) {
    struct sigaction current = {};
    sigaction(signo, nullptr, &current);
    return current.sa_handler;
}

class UnixSignalActions : public testing::Test {
protected:
    UnixSignalActions() {
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGUSR1, SIGUSR2}) {
            std::signal(signo, SIG_DFL);
        }
    }
};

TEST_F(UnixSignalActions, AnApplicationHandlerSurvivesAChange) {
    std::signal(SIGINT, first_handler);
    unix_signal_actions actions;
    actions.set(SIGINT);
    EXPECT_EQ(installed(SIGINT), first_handler) << "set() installs nothing";
    std::signal(SIGINT, second_handler);
    actions.restore();
    EXPECT_EQ(installed(SIGINT), first_handler);
}

TEST_F(UnixSignalActions, DefaultAndIgnoredDispositionsSurviveAChange) {
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGPIPE, SIG_IGN);
    unix_signal_actions actions;
    actions.set(SIGTERM, SIGPIPE);
    std::signal(SIGTERM, first_handler);
    std::signal(SIGPIPE, SIG_DFL);
    actions.restore();
    EXPECT_EQ(installed(SIGTERM), SIG_DFL);
    EXPECT_EQ(installed(SIGPIPE), SIG_IGN);
}

TEST_F(UnixSignalActions, TakesAnyNumberOfSignals) {
    std::signal(SIGUSR1, first_handler);
    std::signal(SIGUSR2, first_handler);
    unix_signal_actions actions;
    actions.set();
    int by_reference = SIGUSR2;
    actions.set(SIGUSR1, by_reference, SIGINT, SIGTERM);
    for (const int signo : {SIGUSR1, SIGUSR2, SIGINT, SIGTERM}) {
        std::signal(signo, second_handler);
    }
    actions.restore();
    EXPECT_EQ(installed(SIGUSR1), first_handler);
    EXPECT_EQ(installed(SIGUSR2), first_handler);
    EXPECT_EQ(installed(SIGINT), SIG_DFL);
    EXPECT_EQ(installed(SIGTERM), SIG_DFL);
}

TEST_F(UnixSignalActions, TheSameSignalTwiceKeepsTheFirstReading) {
    std::signal(SIGINT, first_handler);
    unix_signal_actions actions;
    {
        int readings = 0;
        const intercept change(call::sigaction_read, [&readings] {
            if (++readings == 2) {
                std::signal(SIGINT, second_handler);
            }
            return 0;
        });
        actions.set(SIGINT, SIGINT);
        EXPECT_EQ(readings, 2);
    }
    actions.set(SIGINT);
    EXPECT_EQ(installed(SIGINT), second_handler);
    actions.restore();
    EXPECT_EQ(installed(SIGINT), first_handler);
}

TEST_F(UnixSignalActions, RestoringWithNothingChangedInstallsNothing) {
    unix_signal_actions actions;
    actions.set(SIGINT, SIGTERM, SIGCHLD, SIGPIPE);
    int installs = 0;
    const intercept watch(call::sigaction_install, count_calls(installs));
    actions.restore();
    EXPECT_EQ(installs, 0);
}

TEST_F(UnixSignalActions, OnlyTheChangedSignalsAreInstalled) {
    unix_signal_actions actions;
    actions.set(SIGINT, SIGTERM);
    std::signal(SIGTERM, first_handler);
    int installs = 0;
    const intercept watch(call::sigaction_install, count_calls(installs));
    actions.restore();
    EXPECT_EQ(installs, 1);
    EXPECT_EQ(installed(SIGTERM), SIG_DFL);
}

TEST_F(UnixSignalActions, ChangedMaskOrFlagsWithTheSameHandlerAreLeftAlone) {
    std::signal(SIGUSR1, first_handler);
    unix_signal_actions actions;
    actions.set(SIGUSR1);
    struct sigaction changed = {};
    changed.sa_handler = first_handler;
    changed.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaddset(&changed.sa_mask, SIGUSR2);
    sigaction(SIGUSR1, &changed, nullptr);
    actions.restore();
    struct sigaction current = {};
    sigaction(SIGUSR1, nullptr, &current);
    EXPECT_NE(current.sa_flags & static_cast<int>(SA_RESETHAND), 0);
    EXPECT_EQ(sigismember(&current.sa_mask, SIGUSR2), 1);
}

TEST_F(UnixSignalActions, TheWholeActionIsPutBack) {
    struct sigaction original = {};
    original.sa_handler = first_handler;
    original.sa_flags = SA_RESTART;
    sigaddset(&original.sa_mask, SIGUSR2);
    sigaction(SIGUSR1, &original, nullptr);
    unix_signal_actions actions;
    actions.set(SIGUSR1);
    std::signal(SIGUSR1, SIG_DFL);
    actions.restore();
    struct sigaction current = {};
    sigaction(SIGUSR1, nullptr, &current);
    EXPECT_EQ(current.sa_handler, first_handler);
    EXPECT_NE(current.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&current.sa_mask, SIGUSR2), 1);
}

TEST_F(UnixSignalActions, ALaterRestorePutsTheSameActionsBackAgain) {
    unix_signal_actions actions;
    actions.set(SIGUSR1);
    for (int i = 0; i < 2; ++i) {
        std::signal(SIGUSR1, first_handler);
        actions.restore();
        EXPECT_EQ(installed(SIGUSR1), SIG_DFL);
    }
}

TEST_F(UnixSignalActions, DestructionRestoresNothing) {
    {
        unix_signal_actions actions;
        actions.set(SIGUSR1);
        std::signal(SIGUSR1, first_handler);
    }
    EXPECT_EQ(installed(SIGUSR1), first_handler);
}

TEST_F(UnixSignalActions, AnInvalidSignalThrowsAndThoseBeforeItAreSaved) {
    std::signal(SIGUSR1, first_handler);
    std::signal(SIGUSR2, first_handler);
    const int no_signal = SIGRTMAX + 1; // how many there are differs between processors
    unix_signal_actions actions;
    expect_throw_msg<std::runtime_error>([&] { actions.set(SIGUSR1, no_signal, SIGUSR2); },
                                         "unix_signal_actions failed to get old action of signal " +
                                             std::to_string(no_signal) +
                                             " [22]: " + std::strerror(EINVAL));
    std::signal(SIGUSR1, second_handler);
    std::signal(SIGUSR2, second_handler);
    actions.restore();
    EXPECT_EQ(installed(SIGUSR1), first_handler);
    EXPECT_EQ(installed(SIGUSR2), second_handler) << "never reached";
}

TEST_F(UnixSignalActions, FailingToReadTheCurrentActionEndsTheRestoring) {
    // Their numbers, and so their order, differ between processors.
    std::array<int, 3> signals{SIGTERM, SIGINT, SIGUSR1};
    unix_signal_actions actions;
    actions.set(signals[0], signals[1], signals[2]);
    std::sort(signals.begin(), signals.end());
    for (const int signo : signals) {
        std::signal(signo, first_handler);
    }
    {
        const intercept fault(call::sigaction_read, fail_calls(EIO, 1, 1));
        expect_throw_msg<std::runtime_error>(
            [&actions] { actions.restore(); },
            "unix_signal_actions failed to get new action of signal " + std::to_string(signals[1]) +
                " [5]: " + std::strerror(EIO));
    }
    EXPECT_EQ(installed(signals[0]), SIG_DFL) << "in the order of the numbers";
    EXPECT_EQ(installed(signals[1]), first_handler);
    EXPECT_EQ(installed(signals[2]), first_handler);
    actions.restore();
    EXPECT_EQ(installed(signals[2]), SIG_DFL);
}

TEST_F(UnixSignalActions, FailingToPutAnActionBackEndsTheRestoring) {
    unix_signal_actions actions;
    actions.set(SIGTERM, SIGINT);
    std::signal(SIGINT, first_handler);
    std::signal(SIGTERM, first_handler);
    {
        const intercept fault(call::sigaction_install, fail_calls(EIO));
        expect_throw_msg<std::runtime_error>(
            [&actions] { actions.restore(); },
            "unix_signal_actions failed to set back old action for signal 2 [5]: " +
                std::string(std::strerror(EIO)));
    }
    EXPECT_EQ(installed(SIGINT), first_handler);
    EXPECT_EQ(installed(SIGTERM), first_handler);
}

} // namespace
