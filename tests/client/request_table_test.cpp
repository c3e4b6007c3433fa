/// The numbers of pending requests: never given twice while they are in use.
#include "client/request_table.h"

#include <gtest/gtest.h>

#include <vector>

namespace tarn::test {
namespace {

class RequestTable : public ::testing::Test {
protected:
    struct request final : bus_request {
        void on_connection_end() override {}
    };

    /// Lists a request and counts as libubus does when it starts one. Returns its number.
    int start(std::uint32_t peer) {
        requests_.push_back(std::make_shared<request>());
        return table_.insert(bus_, peer, requests_.back()) ? ++bus_.request_seq : -1;
    }

    ubus_context bus_{};
    request_table table_;
    std::vector<request_table::record> requests_;
};

TEST_F(RequestTable, FindsAndForgetsWhatWasListed) {
    start(7);
    ubus_request& native = requests_[0]->native();
    EXPECT_EQ(request_table::find(native), requests_[0]);
    EXPECT_TRUE(table_.erase(*requests_[0]));
    EXPECT_FALSE(table_.erase(*requests_[0]));
    EXPECT_EQ(request_table::find(native), nullptr);
    EXPECT_EQ(requests_[0].use_count(), 1);
}

TEST_F(RequestTable, ANumberThatIsStillWaitedForIsSkippedWhenTheCountComesRound) {
    const int first = start(7);
    const int second = start(7);
    bus_.request_seq = static_cast<std::uint16_t>(first - 1); // 65,536 requests later
    EXPECT_EQ(start(7), second + 1);
}

TEST_F(RequestTable, NumbersOfDifferentObjectsDoNotCollide) {
    const int first = start(7);
    bus_.request_seq = static_cast<std::uint16_t>(first - 1);
    EXPECT_EQ(start(8), first);
}

TEST_F(RequestTable, ANumberIsFreeAgainWhenItsRequestHasEnded) {
    const int first = start(7);
    table_.erase(*requests_[0]);
    bus_.request_seq = static_cast<std::uint16_t>(first - 1);
    EXPECT_EQ(start(7), first);
}

TEST_F(RequestTable, AnObjectTakesAsManyRequestsAsThereAreNumbers) {
    std::vector<bool> given(65536);
    for (int n = 0; n < 65536; ++n) {
        const int number = start(7);
        ASSERT_GE(number, 0);
        EXPECT_FALSE(given[static_cast<std::size_t>(number)]);
        given[static_cast<std::size_t>(number)] = true;
    }
    EXPECT_EQ(start(7), -1);
    EXPECT_GE(start(8), 0);
    table_.erase(*requests_[1000]);
    EXPECT_GE(start(7), 0);
}

TEST_F(RequestTable, TakenOldestFirstTheyLeaveNothingInUse) {
    const int first = start(7);
    const int second = start(8);
    EXPECT_GT(second, first);
    EXPECT_EQ(table_.take_oldest(), requests_[0]);
    EXPECT_EQ(table_.take_oldest(), requests_[1]);
    EXPECT_EQ(table_.take_oldest(), nullptr);
    bus_.request_seq = static_cast<std::uint16_t>(first - 1);
    EXPECT_EQ(start(7), first);
    EXPECT_EQ(request_table::find(requests_[0]->native()), nullptr);
}

} // namespace
} // namespace tarn::test
