/// Numbers that threads share, with and without an atomic of 64 bits.
#include "client/counter.h"
#include "client/identity.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace tarn::test {
namespace {

template <class Counter>
class Counters : public ::testing::Test {
protected:
    /// Runs `step` many times on each of several threads.
    template <class Step>
    static void on_threads(Step step) {
        std::vector<std::thread> threads;
        for (int number = 0; number < 4; ++number) {
            threads.emplace_back([step] {
                for (int round = 0; round < 10000; ++round) {
                    step(round);
                }
            });
        }
        for (std::thread& each : threads) {
            each.join();
        }
    }

    Counter number_;
};

// The one that is used here, and the other where there is a choice.
using Kinds = ::testing::Types<counter, locked_counter>;

struct kind_names {
    template <class Counter>
    static std::string GetName(int index) {
        return index == 0 ? "InUse" : "Locked";
    }
};
TYPED_TEST_SUITE(Counters, Kinds, kind_names);

TYPED_TEST(Counters, BeginAtZero) {
    EXPECT_EQ(this->number_.get(), 0U);
}

TYPED_TEST(Counters, LoseNothingThatThreadsAddAndSubtract) {
    this->on_threads([this](int) {
        this->number_.add(5);
        this->number_.subtract();
    });
    EXPECT_EQ(this->number_.get(), 160000U);
}

TYPED_TEST(Counters, CountOnBeyond32Bits) {
    this->number_.add(std::numeric_limits<std::uint32_t>::max());
    this->number_.add();
    EXPECT_EQ(this->number_.get(), std::uint64_t{1} << 32U);
    this->number_.subtract();
    EXPECT_EQ(this->number_.get(), std::numeric_limits<std::uint32_t>::max());
}

TYPED_TEST(Counters, AreRaisedToTheHighestOfThreads) {
    this->on_threads(
        [this](int round) { this->number_.raise_to(20000U - static_cast<unsigned>(round)); });
    EXPECT_EQ(this->number_.get(), 20000U);
    this->number_.raise_to(3);
    EXPECT_EQ(this->number_.get(), 20000U);
}

TEST(Identities, BeginAgainBehindTheOneThatMeansNone) {
    EXPECT_EQ(next_after(life_id::none), life_id{1});
    EXPECT_EQ(next_after(life_id{std::numeric_limits<identity_number>::max()}), life_id{1});
}

} // namespace
} // namespace tarn::test
