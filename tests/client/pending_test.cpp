/// Lists of what is pending.
#include "client/pending.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace tarn::test {
namespace {

struct operation final : pending {
    explicit operation(int n)
        : number(n) {}
    void release() override { end(); }
    const int number;
};

class PendingList : public ::testing::Test {
protected:
    ~PendingList() override {
        while (waiting_.take_oldest()) {}
    }

    std::shared_ptr<operation> add(int number) {
        auto added = make_counted<operation>(number);
        waiting_.add(*added);
        return added;
    }

    std::vector<int> take_all() {
        std::vector<int> taken;
        while (const auto next = waiting_.take_oldest()) {
            taken.push_back(static_cast<operation&>(*next).number);
        }
        return taken;
    }

    pending_list waiting_;
};

TEST_F(PendingList, TheOldestLeavesFirst) {
    add(1);
    add(2);
    add(3);
    EXPECT_EQ(take_all(), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(waiting_.empty());
}

TEST_F(PendingList, WhatIsNotChosenStays) {
    add(1);
    const auto last = waiting_.newest();
    add(2);
    add(3);
    const auto next = [&] {
        return waiting_.take_oldest([last](const pending& entry, pending_list::number number) {
            return number <= last || static_cast<const operation&>(entry).number == 3;
        });
    };
    EXPECT_EQ(static_cast<operation&>(*next()).number, 1);
    EXPECT_EQ(static_cast<operation&>(*next()).number, 3);
    EXPECT_EQ(next(), nullptr);
    EXPECT_EQ(take_all(), std::vector<int>{2});
}

TEST_F(PendingList, WhatHasEndedIsNotThereAnyMore) {
    add(1);
    const auto second = add(2);
    add(3);
    EXPECT_TRUE(second->active());
    EXPECT_EQ(second->end(), second);
    EXPECT_FALSE(second->active());
    EXPECT_EQ(second->end(), nullptr);
    EXPECT_EQ(take_all(), (std::vector<int>{1, 3}));
}

TEST_F(PendingList, IsTheOnlyOwnerThatAPendingThingNeeds) {
    const std::weak_ptr<operation> watched = add(1);
    EXPECT_FALSE(watched.expired());
    waiting_.take_oldest();
    EXPECT_TRUE(watched.expired());
}

} // namespace
} // namespace tarn::test
