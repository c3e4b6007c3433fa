// The thermostat's tests, with GoogleTest: no bus, and no waiting.
#include "thermostat.h"

#include <tarn/testing/fake_client.h>
#include <tarn/testing/manual_loop.h>

#include <gtest/gtest.h>

using tarn::testing::outcome;

class Thermostat : public ::testing::Test {
protected:
    void SetUp() override {
        bus.connect({});
        loop->drain();
        bus.on("heater", "switch", outcome{});
    }
    const std::shared_ptr<tarn::testing::manual_loop> loop =
        std::make_shared<tarn::testing::manual_loop>();
    tarn::testing::fake_client bus{loop};
    thermostat room{bus};
};

TEST_F(Thermostat, HeatsAColdRoom) {
    bus.on("sensor", "read", outcome::reply({{"celsius", 18.5}}));
    room.check();
    loop->drain();
    ASSERT_EQ(bus.calls().size(), 2U);
    EXPECT_EQ(bus.calls()[1].path, "heater");
    EXPECT_TRUE(bus.calls()[1].args.find("on")->second.get<bool>());
    EXPECT_FALSE(room.is_failing());
}

TEST_F(Thermostat, LeavesTheHeaterAloneWhenTheSensorHangs) {
    bus.on("sensor", "read", outcome::no_answer());
    room.check();
    loop->drain();
    loop->advance(std::chrono::seconds(10)); // the time limit of the call
    EXPECT_TRUE(room.is_failing());
    EXPECT_EQ(bus.calls().size(), 1U);
}
