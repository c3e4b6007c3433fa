// The pantry's tests: no bus, no other process, no waiting.
#include "pantry.h"

#include <tarn/testing/fake_client.h>
#include <tarn/testing/manual_loop.h>

#include <gtest/gtest.h>

struct Pantry : ::testing::Test {
    void SetUp() override {
        bus.auto_connect([](long long) { return std::chrono::seconds(1); });
        loop->drain();
    }
    auto put(int count) {
        auto call = bus.call_published("pantry", "put", {{"item", "rice"}, {"count", count}});
        loop->drain();
        return call;
    }
    std::shared_ptr<tarn::testing::manual_loop> loop{new tarn::testing::manual_loop};
    tarn::testing::fake_client bus{loop};
    pantry shelf{bus};
};

TEST_F(Pantry, CountsWhatIsPutThere) {
    put(2);
    EXPECT_EQ(tarn::ext::from_attr<stock>(put(3)->replies.front()).count, 5);
}

TEST_F(Pantry, RefusesMoreThanItHolds) {
    EXPECT_EQ(put(101)->status, make_error_code(tarn::error::msg::invalid_argument));
}

TEST_F(Pantry, IsPublishedAgainAfterALostConnection) {
    bus.lose_connection();
    loop->drain();
    EXPECT_TRUE(bus.published().empty());
    loop->advance(std::chrono::seconds(1)); // until the next attempt
    loop->drain();
    EXPECT_EQ(bus.published().size(), 1U);
}
