/// Keeping libubox's hands off the signals that are at their defaults.
#include "uloop/default_signals.h"

#include "support/faults.h"

#include <gtest/gtest.h>

namespace {

using tarn::misc::default_signals;
using tarn::test::call;
using tarn::test::count_calls;
using tarn::test::intercept;

void of_the_application(int) {}

auto installed(int signo) {
    struct sigaction current = {};
    sigaction(signo, nullptr, &current);
    return current.sa_handler;
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

TEST_F(DefaultSignals, TheStandInsDoWhatTheDefaultDoes) {
    const default_signals kept;
    std::raise(SIGCHLD);
    EXPECT_EXIT(std::raise(SIGTERM), testing::KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(std::raise(SIGPIPE), testing::KilledBySignal(SIGPIPE), "");
}

} // namespace
