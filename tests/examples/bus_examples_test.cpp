/// The examples of events, subscriptions and what is on the bus do what they say.
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace tarn::test {
namespace {

class BusExamples : public ::testing::Test {
protected:
    static child_process start(const std::string& example) {
        return child_process({"/bin/sh", "-c", "exec " TARN_TEST_EXAMPLES "/" + example + " 2>&1"});
    }

    static std::string printed_by(const std::string& example) {
        child_process program = start(example);
        const std::string printed = program.read_rest();
        return printed + "exit " + std::to_string(program.wait());
    }

    void start_demo() {
        demo_ = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_SERVICE});
        demo_->wait_for_line("demo_service: ready");
    }

    /// What the command-line client prints, and its exit status.
    static std::string call(const std::string& words) {
        child_process tool({"/bin/sh", "-c", TARN_TEST_TOOL " call " + words + " -s 2>&1"});
        const std::string printed = tool.read_rest();
        return std::to_string(tool.wait()) + ' ' + printed;
    }

    /// Ends a program that runs until then.
    static void expect_good_end(child_process& program) {
        program.kill(SIGTERM);
        EXPECT_EQ(program.wait(), 0);
    }

    bus_daemon daemon_;
    std::unique_ptr<child_process> demo_;
};

TEST_F(BusExamples, TheListenerPrintsWhatTheSenderSendsThroughARestart) {
    child_process listener = start("listen 'greeting*'");
    for (int connection = 0; connection < 2; ++connection) {
        listener.wait_for_line("listening");
        EXPECT_EQ(printed_by("send_event"), "sent\nexit 0");
        EXPECT_EQ(listener.wait_for_line("greeting"),
                  R"(greeting.first {"count": 1, "msg": "hello"})");
        if (connection == 0) {
            daemon_.restart();
        }
    }
    expect_good_end(listener);
}

#ifdef TARN_TEST_COROUTINES
TEST_F(BusExamples, TheStreamTakesThreeEvents) {
    child_process stream = start("stream");
    stream.wait_for_line("listening");
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(printed_by("send_event"), "sent\nexit 0");
    }
    EXPECT_EQ(stream.read_rest(),
              "greeting.first: hello\ngreeting.first: hello\ngreeting.first: hello\n0 dropped\n");
    EXPECT_EQ(stream.wait(), 0);
}
#endif

TEST_F(BusExamples, TheListOfObjectsShowsMethodsAndFields) {
    EXPECT_EQ(printed_by("objects"), "exit 0");
    child_process calculator = start("calculator");
    calculator.wait_for_line("calculator: ready");
    EXPECT_EQ(printed_by("objects"),
              "calculator\n    add(a: any, b: any)\n    divide(a: int32, b: int32)\nexit 0");
    EXPECT_EQ(printed_by("objects 'calc*'"), printed_by("objects calculator"));
    EXPECT_EQ(printed_by("objects 'demo*'"), "exit 0");
    expect_good_end(calculator);
}

TEST_F(BusExamples, TheWaitEndsWhenTheServiceIsThere) {
    daemon_.stop();
    child_process waiting = start("wait_for");
    daemon_.start();
    start_demo();
    EXPECT_EQ(waiting.read_rest(), "demo is there\nhello\n");
    EXPECT_EQ(waiting.wait(), 0);
}

TEST_F(BusExamples, ObjectsThatComeAndGoAreFollowedThroughARestart) {
    start_demo();
    child_process follower = start("on_object 'demo*'");
    follower.wait_for_line("demo appeared");
    follower.wait_for_line("these are all at present");
    demo_->kill(SIGKILL);
    follower.wait_for_line("demo gone");
    start_demo();
    follower.wait_for_line("demo appeared");
    daemon_.restart();
    follower.wait_for_line("demo gone");
    follower.wait_for_line("these are all at present");
    start_demo();
    follower.wait_for_line("demo appeared");
    expect_good_end(follower);
}

TEST_F(BusExamples, TheDoorAsksAndNotifiesItsSubscribers) {
    child_process door = start("notify");
    door.wait_for_line("door: ready");
    EXPECT_EQ(call("door open '{\"name\": \"front\"}'"), "0 {\"result\":true}\n")
        << "no subscriber";
    child_process subscriber = start("subscribe");
    subscriber.wait_for_line("subscribed: Success");
    door.wait_for_line("subscribers");
    EXPECT_EQ(call("door open '{\"name\": \"cellar\"}'"), "0 {\"result\":false}\n");
    EXPECT_EQ(subscriber.wait_for_line("may-open"), "may-open cellar");
    EXPECT_EQ(call("door open '{\"name\": \"front\"}'"), "0 {\"result\":true}\n");
    EXPECT_EQ(subscriber.wait_for_line("may-open"), "may-open front");
    EXPECT_EQ(subscriber.wait_for_line("opened"), "opened front");
    subscriber.kill(SIGKILL);
    door.wait_for_line("no subscribers");
    expect_good_end(door);
}

TEST_F(BusExamples, TheSubscriberFollowsItsDoor) {
    child_process subscriber = start("subscribe");
    for (int times = 0; times < 2; ++times) {
        child_process door = start("notify");
        subscriber.wait_for_line("subscribed: Success");
        door.kill(SIGKILL);
        subscriber.wait_for_line("lost: Not found");
    }
    expect_good_end(subscriber);
}

TEST_F(BusExamples, TheMonitorShowsWhatPassesToRootOnly) {
    child_process monitor = start("monitor");
    if (::geteuid() != 0) {
        monitor.wait_for_line("monitor: Permission denied");
        return;
    }
    monitor.wait_for_line("monitor: ready");
    start_demo();
    EXPECT_EQ(call("demo echo '{\"msg\": \"seen by all\"}'"), "0 {\"msg\":\"seen by all\"}\n");
    std::string line;
    do {
        line = monitor.wait_for_line("-> ");
    } while (line.find("invoke {") == std::string::npos ||
             line.find("seen by all") == std::string::npos);
    expect_good_end(monitor);
}

TEST_F(BusExamples, TheCountersGrow) {
    start_demo();
    child_process stats = start("stats");
    stats.wait_for_line("connections 1 (lost 0), calls 2 (failed 0");
    daemon_.restart();
    stats.wait_for_line("connections 2 (lost 1)");
    expect_good_end(stats);
}

} // namespace
} // namespace tarn::test
