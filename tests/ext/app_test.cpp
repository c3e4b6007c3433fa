/// Programs around the client: what they print and return when things go well, and when they do
/// not.
#include "tarn/ext/app.h"

#include "support/bus_address.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"
#include "support/expect_throw.h"
#include "support/temporary_folder.h"
#include "tarn/error.h"
#include "tarn/ext/fields.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tarn::test {

struct greeting {
    std::string msg;
};
TARN_FIELDS(greeting, msg)

namespace {

using error::msg;
using ext::app;
using ext::reply;
using ext::result;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// With a bus and the service "demo".
class App : public ::testing::Test {
protected:
    App() { service_.wait_for_line("demo_service: ready"); }

    /// What run() returns; what it prints is in printed_.
    int run(app& program) {
        ::testing::internal::CaptureStderr();
        const int status = program.run();
        printed_ = ::testing::internal::GetCapturedStderr();
        return status;
    }
    int run_forever(app& program) {
        ::testing::internal::CaptureStderr();
        const int status = program.run_forever();
        printed_ = ::testing::internal::GetCapturedStderr();
        return status;
    }

    bus_daemon daemon_;
    child_process service_{{TARN_TEST_SERVICE}};
    std::string printed_;
};

TEST_F(App, ACallThatSucceedsEndsTheProgramWithZero) {
    app program;
    std::string got;
    program.call("demo", "echo", {{"msg", "hi"}},
                 [&got](const reply& answer) { got = answer.at<std::string>("msg"); });
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(got, "hi");
    EXPECT_EQ(printed_, "");
}

TEST_F(App, ItEndsWhenTheLastOfItsCallsHasEnded) {
    app program;
    int answers = 0;
    program.call("demo", "echo", {{"msg", "one"}}, [&](const greeting& first) {
        ++answers;
        program.call("demo", "echo", first, [&](const result<greeting>& second) {
            EXPECT_EQ(second->msg, "one");
            ++answers;
        });
    });
    program.call("demo", "late", {{"ms", 1}}, [&answers] { ++answers; });
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(answers, 3);
}

TEST_F(App, ACallThatFailsIsPrintedAndMakesTheStatusOne) {
    app program;
    bool answered = false;
    program.call("nobody", "echo", {}, [] { FAIL(); });
    program.call("demo", "echo", {}, [&answered] { answered = true; });
    EXPECT_EQ(run(program), 1);
    EXPECT_EQ(printed_, "nobody.echo: Not found\n");
    EXPECT_TRUE(answered) << "the others are waited for";
}

TEST_F(App, AReplyWithoutTheFieldIsAFailure) {
    app program;
    program.call("demo", "echo", {}, [](const reply& answer) { answer.at<std::string>("msg"); });
    program.call("demo", "echo", {{"msg", 5}}, [](const greeting&) { FAIL(); });
    EXPECT_EQ(run(program), 1);
    EXPECT_THAT(printed_, HasSubstr("demo.echo: msg: expected a string, found no such field\n"));
    EXPECT_THAT(printed_, HasSubstr("msg: expected a string, found a 32-bit integer\n"));
}

TEST_F(App, AHandlerOfAResultDecidesItself) {
    app program;
    std::error_code seen;
    program.call("demo", "deny", {}, [&seen](const result<void>& end) { seen = end.error(); });
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(seen, msg::permission_denied);
    EXPECT_EQ(printed_, "");
}

TEST_F(App, StopEndsItWithItsStatusFromAnyThread) {
    app program;
    std::thread other;
    program.call("demo", "echo", {}, [&] {
        other = std::thread([&program] {
            program.stop(7);
            program.stop(8);
        });
        other.join();
    });
    program.call("demo", "late", {{"ms", 100000}}, [] { FAIL(); });
    EXPECT_EQ(run(program), 7);
}

TEST_F(App, NoStatusIsTakenForNone) {
    app program;
    program.stop(-1);
    program.stop(2);
    EXPECT_EQ(run(program), -1);
}

TEST_F(App, WhatIsPendingAtTheEndIsEndedBeforeRunReturns) {
    app program;
    std::error_code seen;
    program.call("demo", "late", {{"ms", 100000}},
                 [&seen](const result<void>& end) { seen = end.error(); });
    program.call("demo", "echo", {}, [&program] { program.fail("enough"); });
    EXPECT_EQ(run(program), 1);
    EXPECT_EQ(seen, error::generic::aborted);
    EXPECT_EQ(printed_, "enough\n");
    EXPECT_EQ(program.bus().get_state(), client::state::disconnected);
}

TEST_F(App, AtTheEndEveryHandlerIsCalledAlthoughSomeThrow) {
    app program;
    std::error_code seen;
    program.call("demo", "echo", {}, [&] {
        const auto wait = [&program](const client::result_handler& handler) {
            program.bus().invoke("demo", "late", {{"ms", 100000}}, handler,
                                 std::chrono::seconds(0));
        };
        wait([](const auto&, const auto&) { throw std::runtime_error("one"); });
        wait([](const auto&, const auto&) { throw 2; });
        wait([&seen](const auto&, const std::error_code& status) { seen = status; });
        program.stop();
    });
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(seen, error::generic::aborted);
    EXPECT_EQ(printed_, "one\nunknown exception\n");
    EXPECT_EQ(program.bus().get_state(), client::state::disconnected);
}

TEST_F(App, AtTheEndEveryTaskIsRunAlthoughSomeThrow) {
    app program;
    int run_at_end = 0;
    program.call("demo", "echo", {}, [&] {
        program.loop().post([&program, &run_at_end] {
            program.loop().post([&run_at_end] { ++run_at_end; });
            throw std::runtime_error("one");
        });
        program.loop().post([] { throw 2; });
        program.loop().post([&run_at_end] { ++run_at_end; });
        program.stop();
    });
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(run_at_end, 2);
    EXPECT_EQ(printed_, "one\nunknown exception\n");
}

TEST_F(App, TheEndOfTheConnectionIsAFailure) {
    app program;
    program.call("demo", "late", {{"ms", 100000}}, [] { FAIL(); });
    program.call("demo", "echo", {}, [this](const result<void>&) { daemon_.kill9(); });
    EXPECT_EQ(run(program), 1);
    EXPECT_THAT(printed_, HasSubstr("demo.late: Connection failed\n"));
}

TEST_F(App, AnExceptionOfAnyHandlerIsPrintedAndEndsIt) {
    app program;
    program.loop().post([] { throw std::runtime_error("broken"); });
    EXPECT_EQ(run_forever(program), 1);
    EXPECT_EQ(printed_, "broken\n");
}

TEST_F(App, WhatIsNoStdExceptionIsPrintedAndEndsItLikewise) {
    app program;
    std::error_code seen;
    program.call("demo", "echo", {}, [&] {
        program.call("demo", "late", {{"ms", 100000}},
                     [&seen](const result<void>& end) { seen = end.error(); });
        program.loop().post([] { throw 5; });
    });
    EXPECT_EQ(run_forever(program), 1);
    EXPECT_EQ(printed_, "unknown exception\n");
    EXPECT_EQ(seen, error::generic::aborted);
    EXPECT_EQ(program.bus().get_state(), client::state::disconnected);
}

TEST_F(App, AnExceptionOfTheHandlerOfACallMakesTheStatusOneWhateverItSays) {
    class silent : public std::exception {
        const char* what() const noexcept override { return ""; }
    };
    app program;
    program.call("demo", "echo", {}, [&program] {
        program.call("demo", "echo", {}, [] { throw 5; });
        throw silent();
    });
    EXPECT_EQ(run(program), 1);
    EXPECT_EQ(printed_, "demo.echo: \ndemo.echo: unknown exception\n");
}

TEST_F(App, ASignalEndsAProgramThatWaitsForAnAnswer) {
    app program;
    program.call("demo", "late", {{"ms", 100000}}, [] { FAIL(); });
    program.call("demo", "echo", {}, [] { ::kill(::getpid(), SIGINT); });
    EXPECT_EQ(run(program), 128 + SIGINT);
}

TEST_F(App, ASignalEndsAServiceGracefully) {
    {
        app program;
        program.call("demo", "echo", {}, [] {
            ::kill(::getpid(), SIGTERM);
            ::kill(::getpid(), SIGINT); // one more does no harm
        });
        EXPECT_EQ(run_forever(program), 0);
    }
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "as it was before";
}

TEST_F(App, ASignalThatIsIgnoredStaysIgnored) {
    ::signal(SIGINT, SIG_IGN);
    app program;
    program.call("demo", "echo", {}, [&program] {
        ::kill(::getpid(), SIGINT);
        program.call("demo", "echo", {}, [] { ::kill(::getpid(), SIGTERM); });
        program.call("demo", "late", {{"ms", 100000}}, [] { FAIL(); });
    });
    EXPECT_EQ(run(program), 128 + SIGTERM);
}

TEST_F(App, AServiceReconnectsAndDoesNotEndWithACallThatFails) {
    app program;
    int connections = 0;
    const utils::scoped_link states = program.bus().notify_on_state_change([&](client::state now) {
        if (now != client::state::connected) {
            return;
        }
        if (++connections == 2) {
            return program.stop(3);
        }
        program.call("nobody", "ping", {}, [] { FAIL(); });
        program.call("nobody", "ping", {}, [this](const result<void>&) { daemon_.restart(); });
    });
    EXPECT_EQ(run_forever(program), 3);
    EXPECT_EQ(printed_, "nobody.ping: Not found\n");
}

TEST_F(App, ThereIsOneAtATime) {
    {
        app program;
        expect_throw_msg<std::logic_error>([] { app other; },
                                           "tarn::ext::app: there is one already");
    }
    app next;
    next.call("demo", "echo", {}, [] {});
    EXPECT_EQ(run(next), 0);
    expect_throw_msg<std::logic_error>([&next] { next.run(); },
                                       "tarn::ext::app: it has been run already");
}

TEST(AppWithoutABus, IsAFailure) {
    const temporary_folder folder;
    const bus_address nowhere(folder.path() + "/ubus.sock");
    app program;
    program.call("demo", "echo", {}, [] { FAIL(); });
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(program.run(), 1);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                StartsWith("cannot connect to the bus: "));
}

} // namespace
} // namespace tarn::test
