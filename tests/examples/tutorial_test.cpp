/// The programs of the tutorial do what its text says.
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace tarn::test {
namespace {

class Tutorial : public ::testing::Test {
protected:
    static child_process start(const std::string& program) {
        return child_process({"/bin/sh", "-c", "exec " TARN_TEST_TUTORIAL "/" + program + " 2>&1"});
    }

    /// What a program prints, and its exit status.
    static std::string run(child_process program) {
        const std::string printed = program.read_rest();
        return std::to_string(program.wait()) + ' ' + printed;
    }

    static std::string call(const std::string& words) {
        return run(child_process({"/bin/sh", "-c", TARN_TEST_TOOL " call " + words + " -s 2>&1"}));
    }

    bus_daemon daemon_;
};

TEST_F(Tutorial, ThePantryAnswersTheCommandLine) {
    child_process pantry = start("pantry_service");
    pantry.wait_for_line("pantry: ready");
    EXPECT_EQ(call("pantry put '{\"item\": \"salt\", \"count\": 2}'"),
              "0 {\"count\":2,\"item\":\"salt\"}\n");
    EXPECT_EQ(call("pantry look '{\"item\": \"salt\"}'"), "0 {\"count\":2,\"item\":\"salt\"}\n");
    EXPECT_EQ(call("pantry look '{\"item\": \"rice\"}'"), "14 tarn: pantry.look: Not found\n");
    EXPECT_EQ(call("pantry put '{\"item\": \"salt\", \"count\": \"two\"}'"),
              "12 tarn: pantry.put: Invalid argument\n");
    pantry.kill(SIGTERM);
    EXPECT_EQ(pantry.wait(), 0);
}

TEST_F(Tutorial, TheShopperPrintsTheStock) {
    child_process pantry = start("pantry_service");
    pantry.wait_for_line("pantry: ready");
    EXPECT_EQ(run(start("shopper")), "0 rice: 3\n");
    EXPECT_EQ(run(start("shopper")), "0 rice: 6\n");
    EXPECT_EQ(call("pantry put '{\"item\": \"rice\", \"count\": 94}'"),
              "0 {\"count\":100,\"item\":\"rice\"}\n");
    EXPECT_EQ(run(start("shopper")), "1 pantry.put: Invalid argument\n");
}

TEST_F(Tutorial, TheShopperFailsWithoutThePantry) {
    EXPECT_EQ(run(start("shopper")), "1 pantry.put: Not found\n");
}

TEST_F(Tutorial, TheServiceAndTheCookReconnect) {
    child_process pantry = start("pantry_service");
    pantry.wait_for_line("pantry: ready");
    EXPECT_EQ(run(start("shopper")), "0 rice: 3\n");
    child_process cook = start("cook");
    cook.wait_for_line("connected");
    EXPECT_EQ(cook.wait_for_line("rice: "), "rice: 3");

    daemon_.stop();
    cook.wait_for_line("disconnected");
    daemon_.start();
    pantry.wait_for_line("pantry: ready");
    cook.wait_for_line("connected");
    // Either may be the first to be back.
    const std::string found = cook.wait_for_line("rice: ");
    EXPECT_TRUE(found == "rice: 3" || found == "rice: Not found") << found;
    EXPECT_EQ(call("pantry look '{\"item\": \"rice\"}'"), "0 {\"count\":3,\"item\":\"rice\"}\n");

    cook.kill(SIGINT);
    EXPECT_EQ(cook.wait(), 0);
}

} // namespace
} // namespace tarn::test
