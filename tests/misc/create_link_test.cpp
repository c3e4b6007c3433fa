/// Links whose life is the life of an object.
#include "tarn/link.h"

#include "support/expect_throw.h"

#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using tarn::misc::create_link;
using tarn::test::expect_throw_msg;
using tarn::utils::link;

TEST(CreateLink, IsActiveWhileTheOwnerLivesAndReleasesThroughTheReleaser) {
    auto owner = std::make_shared<int>(0);
    link l = create_link(owner, [&owner] { owner.reset(); });
    EXPECT_TRUE(l.active());
    EXPECT_TRUE(l);
    l.release();
    EXPECT_EQ(owner, nullptr);
    EXPECT_FALSE(l.active());
    EXPECT_FALSE(l);
}

TEST(CreateLink, NeverKeepsTheOwnerAlive) {
    const auto owner = std::make_shared<int>(0);
    const link l = create_link(owner, [] {});
    EXPECT_EQ(owner.use_count(), 1);
}

TEST(CreateLink, WithAnEmptyOwnerIsInactiveAtOnceAndNeverCallsTheReleaser) {
    int calls = 0;
    link l = create_link(nullptr, [&calls] { ++calls; });
    EXPECT_FALSE(l.active());
    EXPECT_NO_THROW(l.release());
    EXPECT_EQ(calls, 0);
}

TEST(CreateLink, TurnsInactiveWhenTheOwnerDiesFirstAndNeverCallsTheReleaser) {
    auto owner = std::make_shared<int>(0);
    int calls = 0;
    link l = create_link(owner, [&calls] { ++calls; });
    owner.reset();
    EXPECT_FALSE(l.active());
    EXPECT_NO_THROW(l.release());
    EXPECT_EQ(calls, 0);
}

TEST(CreateLink, ReleasingTwiceRunsTheReleaserOnce) {
    auto owner = std::make_shared<int>(0);
    int calls = 0;
    link l = create_link(owner, [&owner, &calls] {
        ++calls;
        owner.reset();
    });
    link copy = l;
    l.release();
    l.release();
    copy.release();
    EXPECT_EQ(calls, 1);
}

TEST(CreateLink, AReleaserThatKeepsTheOwnerAliveMakesReleaseThrowEveryTime) {
    const auto owner = std::make_shared<int>(0);
    int calls = 0;
    link l = create_link(owner, [&calls] { ++calls; });
    expect_throw_msg<std::logic_error>([&l] { l.release(); }, "tarn failed to release link");
    EXPECT_TRUE(l.active());
    EXPECT_THROW(l.release(), std::logic_error);
    EXPECT_EQ(calls, 2);
}

TEST(CreateLink, AnEmptyReleaserThrowsBadFunctionCall) {
    const auto owner = std::make_shared<int>(0);
    link l = create_link(owner, nullptr);
    EXPECT_TRUE(l.active());
    EXPECT_THROW(l.release(), std::bad_function_call);
    EXPECT_TRUE(l.active());
}

TEST(CreateLink, WhatTheReleaserThrowsPassesThrough) {
    const auto owner = std::make_shared<int>(0);
    link l = create_link(owner, [] { throw std::out_of_range("x"); });
    expect_throw_msg<std::out_of_range>([&l] { l.release(); }, "x");
}

TEST(CreateLink, TheReleaserMayDestroyTheVeryLinkThatIsReleased) {
    auto owner = std::make_shared<int>(0);
    auto held = std::make_unique<link>();
    held->assign(create_link(owner, [&owner, &held] {
        owner.reset();
        held.reset();
    }));
    held->release();
    EXPECT_EQ(held, nullptr);
}

TEST(CreateLink, TheReleaserLivesAsLongAsALink) {
    const auto owner = std::make_shared<int>(0);
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    {
        const link l = create_link(owner, [capture] {});
        const link copy = l;
        capture.reset();
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

TEST(CreateLink, CopiesReleasedOnSeveralThreadsAtOnceAllSucceed) {
    for (int round = 0; round < 200; ++round) {
        std::mutex lock;
        auto owner = std::make_shared<int>(0);
        const link l = create_link(owner, [&lock, &owner] {
            const std::lock_guard<std::mutex> guard(lock);
            owner.reset();
        });
        std::atomic<int> ready{0};
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([copy = l, &ready, &failures]() mutable {
                ++ready;
                while (ready < 3) {
                    std::this_thread::yield();
                }
                try {
                    copy.release();
                } catch (...) {
                    ++failures;
                }
                if (copy.active()) {
                    ++failures;
                }
            });
        }
        for (auto& t : threads) {
            t.join();
        }
        ASSERT_EQ(failures, 0);
    }
}

} // namespace
