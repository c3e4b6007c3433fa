/// The demonstration when something fails: it says what, ends with status 1 within its limits, and
/// leaves no process behind.
#include "support/bus_address.h"
#include "support/child_process.h"
#include "support/temporary_folder.h"
#include "support/wire.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr const char* sleeps = "exec sleep 1000";

/// demo.sh with real or false programs. What it prints is read to the end, and every process that
/// it starts has that output too, so the end means that none of them is left.
class Demo : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directory(examples_);
        fs::create_directory(temporary_);
        for (const char* program : {"call", "demo_service", "service"}) {
            fs::create_symlink(std::string(TARN_TEST_EXAMPLES "/") + program,
                               examples_ + "/" + program);
        }
    }

    /// A program for the shell; returns its path.
    std::string make_program(const std::string& path, const std::string& script) const {
        fs::remove(path);
        std::ofstream(path) << "#!/bin/sh\n" << script << '\n';
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }
    void replace_example(const std::string& name, const std::string& script) const {
        make_program(examples_ + "/" + name, script);
    }
    void replace_daemon(const std::string& script) {
        daemon_ = make_program(folder_.path() + "/daemon", script);
    }
    void replace_tool(const std::string& script) {
        tool_ = make_program(folder_.path() + "/tool", script);
    }

    std::vector<std::string> command() const {
        // Its own files go where the test sees what is left of them.
        return {"/bin/sh",
                "-c",
                "TMPDIR=$0 TARN_DEMO_PATIENCE=$1; shift; export TMPDIR TARN_DEMO_PATIENCE; "
                "exec \"$@\" 2>&1",
                temporary_,
                TARN_TEST_PATIENCE,
                TARN_TEST_DEMO,
                daemon_,
                examples_,
                tool_,
                socket_};
    }

    void expect_failure(const std::string& why) {
        child_process demo(command());
        const std::string output = demo.read_rest();
        EXPECT_THAT(output, HasSubstr("demo: FAILED: " + why));
        EXPECT_THAT(output, Not(HasSubstr("demo: ok")));
        EXPECT_EQ(demo.wait(), 1);
        EXPECT_TRUE(fs::is_empty(temporary_));
    }

    /// Ends the demonstration by a signal once it has printed `line`.
    void expect_a_clean_end(int signal, const std::string& line) {
        child_process demo(command());
        demo.wait_for_line(line);
        demo.kill(signal);
        EXPECT_THAT(demo.read_rest(), Not(HasSubstr("demo: ok")));
        EXPECT_EQ(demo.wait(), 128 + signal);
        EXPECT_TRUE(fs::is_empty(temporary_));
    }

    const temporary_folder folder_;
    std::string daemon_ = TARN_TEST_DAEMON;
    std::string tool_ = TARN_TEST_TOOL;
#ifdef TARN_TEST_SOCKET
    std::string socket_ = TARN_TEST_SOCKET;
#else
    std::string socket_ = folder_.path() + "/ubus.sock";
#endif
    const std::string examples_ = folder_.path() + "/examples";

private:
    const std::string temporary_ = folder_.path() + "/tmp";
};

TEST_F(Demo, ADaemonThatIsNoProgramIsAFailure) {
    daemon_ = "/nowhere/daemon";
    expect_failure("the daemon '/nowhere/daemon' ended");
}

TEST_F(Demo, ADaemonThatEndsAtOnceIsAFailure) {
    replace_daemon("exit 0");
    expect_failure("the daemon '" + daemon_ + "' ended");
}

TEST_F(Demo, ADaemonThatDoesNotListenIsAFailure) {
    replace_daemon(sleeps);
    expect_failure("the daemon '" + daemon_ + "' does not answer");
}

TEST_F(Demo, ADaemonThatNeverGreetsIsAFailure) {
    const wire::listening bus;
    const bus_address address(bus.path());
    socket_ = bus.path();
    replace_daemon(sleeps);
    expect_failure("the daemon '" + daemon_ + "' does not answer");
}

TEST_F(Demo, ADaemonThatDoesNotStartAgainIsAFailure) {
    replace_daemon("[ -e \"$0.started\" ] && exit 1\n"
                   ": >\"$0.started\"\n"
                   "exec " TARN_TEST_DAEMON " \"$@\"");
    expect_failure("the daemon '" + daemon_ + "' ended");
}

TEST_F(Demo, AToolThatIsNoProgramIsAFailure) {
    tool_ = "/nowhere/tool";
    expect_failure("'/nowhere/tool' ended with status 127");
}

TEST_F(Demo, AToolThatFailsIsAFailure) {
    replace_tool("echo broken >&2; exit 1");
    expect_failure("'" + tool_ + "' ended with status 1: broken");
}

TEST_F(Demo, AToolThatHangsIsAFailure) {
    replace_tool(sleeps);
    expect_failure("'" + tool_ + " -t 1 call demo.nobody.has.this ping' does not end");
}

TEST_F(Demo, AToolThatFailsInTheMiddleIsAFailure) {
    replace_tool("[ \"$2\" = example ] && { echo broken >&2; exit 1; }\n"
                 "exec " TARN_TEST_TOOL " \"$@\"");
    expect_failure("expected the answer *\"greeting\": \"Hello, router!\"* with exit status 0");
}

TEST_F(Demo, AServiceThatDoesNotStartIsAFailure) {
    replace_example("demo_service", "exit 1");
    expect_failure("'" + examples_ + "/demo_service' ended before it was ready");
}

TEST_F(Demo, AServiceThatHangsAtItsStartIsAFailure) {
    replace_example("demo_service", sleeps);
    expect_failure("'" + examples_ + "/demo_service' did not get ready");
}

TEST_F(Demo, AServiceThatOnlyTalksIsAFailure) {
    replace_example("demo_service", "while echo still starting; do sleep 0.1; done");
    expect_failure("'" + examples_ + "/demo_service' did not get ready");
}

TEST_F(Demo, AServiceThatPublishesNothingIsAFailure) {
    replace_example("service", "echo service: ready; " + std::string(sleeps));
    expect_failure("expected the answer *\"greeting\": \"Hello, router!\"* with exit status 0");
}

TEST_F(Demo, AServiceThatStaysWithoutItsBusIsAFailure) {
    replace_example("demo_service", "echo demo_service: ready; " + std::string(sleeps));
    replace_example("call", "echo now take the bus away; " + std::string(sleeps));
    expect_failure("the service \"demo\" does not end with its bus");
}

TEST_F(Demo, ACallingExampleThatFailsIsAFailure) {
    replace_example("call", "echo '[state] connecting'; exit 3");
    expect_failure("the calling example ended with status 3");
}

TEST_F(Demo, ACallingExampleThatIsKilledIsAFailure) {
    replace_example("call", "kill -KILL $$");
    expect_failure("the calling example ended with status 137");
}

TEST_F(Demo, ACallingExampleThatHangsIsAFailure) {
    replace_example("call", sleeps);
    expect_failure("the calling example does not come to its end");
}

TEST_F(Demo, ACallingExampleThatClosesItsOutputAndStaysIsAFailure) {
    replace_example("call", "exec sleep 1000 >&-");
    expect_failure("the calling example does not end");
}

TEST_F(Demo, WrongUsageIsAFailure) {
    child_process demo({"/bin/sh", "-c", "exec \"$0\" one two 2>&1", TARN_TEST_DEMO});
    EXPECT_EQ(demo.read_rest(), "usage: demo.sh DAEMON EXAMPLES_DIRECTORY TOOL [SOCKET]\n");
    EXPECT_EQ(demo.wait(), 1);
}

TEST_F(Demo, ASignalEndsItAndAllThatItHasStarted) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        replace_daemon("echo daemon: started >&2; " + std::string(sleeps));
        expect_a_clean_end(signal, "daemon: started");
    }
}

TEST_F(Demo, ASignalEndsItWhileItWaitsForTheCallingExample) {
    replace_example("call", "echo calling; " + std::string(sleeps));
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        expect_a_clean_end(signal, "calling");
    }
}

} // namespace
} // namespace tarn::test
