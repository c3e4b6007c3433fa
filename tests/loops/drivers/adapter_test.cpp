/// What every adapter promises beside the conformance suite.
#include TARN_TEST_DRIVER

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <thread>

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

TEST(AnyAdapter, ServesABurstOfPostsInOneTurnOfItsLoop) {
    loop_driver driver;
    constexpr int posts = 1000;
    int ran = 0;
    for (int count = 0; count < posts; ++count) {
        driver.loop().post([&ran] { ++ran; });
    }
    int turns = -1;
    EXPECT_TRUE(driver.run_until(
        [&] {
            ++turns;
            return ran == posts;
        },
        20s));
    // Some for what the driver itself has in the loop.
    EXPECT_LE(turns, 5);
}

TEST(AnyAdapter, WakesALoopThatIsWaiting) {
    loop_driver driver;
    std::thread::id ran_on;
    bool ran = false;
    std::thread poster([&] {
        driver.loop().post([&] {
            ran_on = std::this_thread::get_id();
            ran = true;
        });
    });
    EXPECT_TRUE(driver.run_until([&ran] { return ran; }, 20s));
    poster.join();
    EXPECT_EQ(ran_on, std::this_thread::get_id());
}

TEST(AnyAdapter, MayBeReplacedByAnotherOnTheSameLoop) {
    loop_driver driver;
    bool dropped = false;
    driver.loop().post([&dropped] { dropped = true; });
    driver.make_loop();
    bool ran = false;
    driver.loop().post([&ran] { ran = true; });
    EXPECT_TRUE(driver.run_until([&ran] { return ran; }, 20s));
    EXPECT_FALSE(dropped);
}

#ifndef TARN_TEST_DRIVER_THROWS
TEST(AnyAdapterDeathTest, EndsTheProcessAtAnExceptionOfAHandler) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto throw_into_it = [] {
        loop_driver driver;
        driver.loop().post([] { throw std::runtime_error("a handler's"); });
        driver.run_until([] { return false; }, 20s);
    };
    EXPECT_EXIT(throw_into_it(), testing::KilledBySignal(SIGABRT), "a handler's");
}
#endif

} // namespace
} // namespace tarn::test
