/// The completion handlers of operations in flight.
#include "client/pending_handlers.h"

#include <gtest/gtest.h>

#include <memory>
#include <system_error>
#include <vector>

namespace tarn::test {
namespace {

class PendingHandlers : public ::testing::Test {
protected:
    client::completion_handler told(int number) {
        return [this, number](const std::error_code&) {
            told_.push_back(number);
        };
    }
    void tell(const client::completion_handler& handler) {
        ASSERT_TRUE(handler);
        handler({});
    }

    pending_handlers waiting_;
    std::vector<int> told_;
};

TEST_F(PendingHandlers, TheOldestLeavesFirst) {
    for (const int number : {1, 2, 3}) {
        waiting_.add(told(number));
    }
    while (const auto handler = waiting_.take_oldest()) {
        tell(handler);
    }
    EXPECT_EQ(told_, (std::vector<int>{1, 2, 3}));
}

TEST_F(PendingHandlers, WhatIsNewerThanANumberStays) {
    waiting_.add(told(1));
    const auto last = waiting_.newest();
    waiting_.add(told(2));
    tell(waiting_.take_oldest(last));
    EXPECT_FALSE(waiting_.take_oldest(last));
    tell(waiting_.take_oldest());
    EXPECT_EQ(told_, (std::vector<int>{1, 2}));
}

TEST_F(PendingHandlers, ATicketTakesItsOwnHandlerOnce) {
    waiting_.add(told(1));
    const auto second = waiting_.add(told(2));
    waiting_.add(told(3));
    tell(waiting_.take(second));
    EXPECT_FALSE(waiting_.take(second));
    EXPECT_EQ(told_, std::vector<int>{2});
}

TEST_F(PendingHandlers, ATicketMayBeCopiedAndAssignedWhenItsEntryIsGone) {
    auto ticket = waiting_.add(told(1));
    waiting_.take_oldest();
    const auto copy = ticket;
    EXPECT_FALSE(waiting_.take(copy));
    ticket = waiting_.add(told(2));
    EXPECT_FALSE(waiting_.take(copy)) << "nor does it name a later entry";
    ticket = copy;
    EXPECT_FALSE(waiting_.take(ticket));
    tell(waiting_.take_oldest());
    EXPECT_EQ(told_, std::vector<int>{2});
}

TEST_F(PendingHandlers, AnEmptyHandlerIsNoEntry) {
    const auto none = waiting_.add({});
    EXPECT_FALSE(waiting_.link_to(none).active());
    EXPECT_FALSE(waiting_.take(none));
    EXPECT_FALSE(waiting_.take_oldest());
}

TEST_F(PendingHandlers, ALinkIsActiveWhileItsEntryIsThere) {
    const auto ticket = waiting_.add(told(1));
    auto link = waiting_.link_to(ticket);
    const auto same = waiting_.link_to(ticket);
    EXPECT_TRUE(link.active());
    link.release();
    EXPECT_FALSE(link.active());
    EXPECT_FALSE(same.active());
    EXPECT_FALSE(waiting_.take(ticket));
}

} // namespace
} // namespace tarn::test
