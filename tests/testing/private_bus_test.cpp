/// The private bus of the test kit, as a test of an application uses it.
#include "tarn/testing/private_bus.h"

#include "tarn/client.h"
#include "tarn/testing/manual_loop.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using tarn::testing::manual_loop;
using tarn::testing::private_bus;

constexpr std::chrono::seconds limit{20};

private_bus::options here() {
    private_bus::options chosen;
    chosen.daemon = TARN_TEST_BUSD_PATH;
    chosen.compiled_in_socket = TARN_TEST_SOCKET;
    return chosen;
}

TEST(PrivateBus, LeadsTheClientOfTheProcessToItself) {
    const private_bus bus(here());
    static const auto loop = std::make_shared<manual_loop>();
    tarn::client& client = tarn::client::get_instance(loop);
    bool connected = false;
    client.connect([&](const std::error_code& code) {
        EXPECT_FALSE(code);
        connected = true;
    });
    EXPECT_TRUE(loop->run_until([&] { return connected; }, limit));
}

TEST(PrivateBus, ADaemonThatIsNotThereIsReported) {
    private_bus::options chosen = here();
    chosen.daemon = "/no/such/daemon";
    EXPECT_THROW(private_bus{chosen}, std::runtime_error);
    chosen.daemon.clear();
    ::unsetenv("TARN_TEST_BUSD");
    ::setenv("PATH", "/no/such/folder", 1);
    EXPECT_THROW(private_bus{chosen}, std::runtime_error);
}

TEST(PrivateBus, TheDaemonIsFoundByTheEnvironment) {
    ::setenv("TARN_TEST_BUSD", TARN_TEST_BUSD_PATH, 1);
    private_bus::options chosen = here();
    chosen.daemon.clear();
    private_bus bus(chosen);
    EXPECT_GT(bus.pid(), 0);
    EXPECT_EQ(bus.stop(), 0);
    EXPECT_EQ(bus.pid(), -1);
}

} // namespace
