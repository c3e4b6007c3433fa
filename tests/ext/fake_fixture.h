/// What the tests of tarn::ext start from where a fake bus will do.
#pragma once

#include "tarn/error.h"
#include "tarn/ext/fields.h"
#include "tarn/testing/fake_client.h"
#include "tarn/testing/manual_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarn::test {

/// The data of an event or a notification.
struct door {
    std::string name;
    std::optional<int> floor;
};
TARN_FIELDS(door, name, floor)

class fake_fixture : public ::testing::Test {
protected:
    void connect() {
        bus.connect({});
        loop->drain();
        ASSERT_TRUE(bus.is_active());
    }

    void lose() {
        bus.lose_connection();
        loop->drain();
    }

    void publish(const std::string& name) {
        bus.add_object(name, {}, {});
        loop->drain();
    }

    const std::shared_ptr<testing::manual_loop> loop = std::make_shared<testing::manual_loop>();
    testing::fake_client bus{loop};
    testing::fake_bus& rest = bus.get_bus();
    std::vector<std::string> seen;
};

} // namespace tarn::test
