/// Tests the heap of armed timers of epoll_loop against a sorted set.
#include "timer_heap.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <utility>
#include <vector>

namespace {

using tarn::loops::detail::timer_entry;
using tarn::loops::detail::timer_heap;

TEST(TimerHeap, YieldsTheEarliestFirstAndOfEqualOnesTheFirstArmed) {
    std::vector<timer_entry> entries(4);
    const std::vector<int> deadlines = {5, 3, 5, 3};
    timer_heap heap;
    for (std::size_t number = 0; number < entries.size(); ++number) {
        entries[number].deadline = std::chrono::nanoseconds(deadlines[number]);
        entries[number].order = number;
        heap.push(entries[number]);
    }
    for (const std::size_t expected : {1U, 3U, 0U, 2U}) {
        ASSERT_FALSE(heap.empty());
        EXPECT_EQ(&heap.top(), &entries[expected]);
        heap.erase(heap.top());
    }
    EXPECT_TRUE(heap.empty());
}

TEST(TimerHeap, ErasingAnIdleEntryDoesNothing) {
    timer_entry idle;
    timer_entry other;
    timer_heap heap;
    heap.push(other);
    heap.erase(idle);
    EXPECT_EQ(&heap.top(), &other);
    heap.erase(other);
    heap.erase(other);
    EXPECT_TRUE(heap.empty());
}

TEST(TimerHeap, ClearingLeavesEveryEntryIdle) {
    std::vector<timer_entry> entries(3);
    timer_heap heap;
    for (timer_entry& entry : entries) {
        heap.push(entry);
    }
    heap.clear();
    EXPECT_TRUE(heap.empty());
    for (const timer_entry& entry : entries) {
        EXPECT_EQ(entry.position, timer_entry::idle);
    }
}

TEST(TimerHeap, AgreesWithASortedSetUnderRandomArmingAndDisarming) {
    using key = std::pair<std::int64_t, std::uint64_t>;
    std::mt19937 random(12345);
    std::vector<timer_entry> entries(200);
    timer_heap heap;
    std::set<key> model;
    const auto key_of = [](const timer_entry& entry) {
        return key(entry.deadline.count(), entry.order);
    };
    for (std::uint64_t step = 0; step < 100000; ++step) {
        timer_entry& entry = entries[random() % entries.size()];
        if (entry.position != timer_entry::idle) {
            model.erase(key_of(entry));
            heap.erase(entry);
        } else {
            entry.deadline = std::chrono::nanoseconds(random() % 50);
            entry.order = step;
            model.insert(key_of(entry));
            heap.push(entry);
        }
        ASSERT_EQ(heap.empty(), model.empty());
        if (!model.empty()) {
            ASSERT_EQ(key_of(heap.top()), *model.begin());
        }
    }
}

TEST(TimerHeap, GivesBackRoomAndStaysAsItIs) {
    std::vector<timer_entry> entries(1000);
    timer_heap heap;
    heap.reserve(entries.size());
    for (std::size_t number = 0; number < entries.size(); ++number) {
        entries[number].deadline = std::chrono::nanoseconds(number);
        heap.push(entries[number]);
    }
    for (std::size_t number = 0; number + 3 < entries.size(); ++number) {
        heap.erase(entries[number]);
    }
    EXPECT_GE(heap.room(), 1000U);
    heap.give_back(3);
    EXPECT_LT(heap.room(), 200U);
    // Push cannot fail up to the number that was given.
    EXPECT_GE(heap.room(), 3U);
    for (std::size_t number = entries.size() - 3; number < entries.size(); ++number) {
        ASSERT_FALSE(heap.empty());
        EXPECT_EQ(&heap.top(), &entries[number]);
        heap.erase(heap.top());
    }
    EXPECT_TRUE(heap.empty());
}

} // namespace
