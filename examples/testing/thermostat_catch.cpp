// The same thermostat on a bus of the test's own, with Catch2 and a real service beside it.
#define CATCH_CONFIG_MAIN
#include "thermostat.h"

#include <tarn/testing/manual_loop.h>
#include <tarn/testing/private_bus.h>

#include <catch2/catch.hpp>

TEST_CASE("a sensor that is not there is a failure") {
    const tarn::testing::private_bus daemon;
    static const auto loop = std::make_shared<tarn::testing::manual_loop>();
    tarn::client& bus = tarn::client::get_instance(loop);
    bus.connect({});
    REQUIRE(loop->run_until([&] { return bus.is_active(); }, std::chrono::seconds(10)));

    thermostat room(bus);
    room.check();
    CHECK(loop->run_until([&] { return room.is_failing(); }, std::chrono::seconds(10)));
}
