/// Handlers tied to the life of objects.
#include "tarn/misc/tie_handler.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

using tarn::misc::tie_handler;

TEST(TieHandler, CallsTheHandlerWhileTheOwnerLivesAndDoesNothingAfterwards) {
    auto owner = std::make_shared<int>(0);
    int calls = 0;
    const std::function<void()> tied = tie_handler([&calls] { ++calls; }, owner);
    tied();
    tied();
    EXPECT_EQ(calls, 2);
    owner.reset();
    EXPECT_NO_THROW(tied());
    EXPECT_EQ(calls, 2);
}

TEST(TieHandler, NeedsEveryOwner) {
    auto first = std::make_shared<int>(0);
    auto second = std::make_shared<std::string>("x");
    const std::weak_ptr<void> weak = second;
    int calls = 0;
    const auto tied = tie_handler([&calls] { ++calls; }, first, weak);
    tied();
    EXPECT_EQ(calls, 1);
    second.reset();
    tied();
    EXPECT_EQ(calls, 1);
}

TEST(TieHandler, AcceptsEveryKindOfOwner) {
    std::shared_ptr<void> shared = std::make_shared<int>(0);
    std::weak_ptr<void> weak = shared;
    const std::weak_ptr<void> constant = shared;
    std::weak_ptr<int> typed = std::static_pointer_cast<int>(shared);
    int calls = 0;
    const std::function<void()> handler = [&calls] {
        ++calls;
    };
    tie_handler(handler, shared)();
    tie_handler(handler, weak)();
    tie_handler(handler, constant)();
    tie_handler(handler, typed)();
    tie_handler(handler, std::weak_ptr<void>(shared), std::move(typed))();
    EXPECT_EQ(calls, 5);
}

TEST(TieHandler, WithoutOwnersAlwaysCalls) {
    int calls = 0;
    tie_handler([&calls] { ++calls; })();
    EXPECT_EQ(calls, 1);
}

TEST(TieHandler, NeverKeepsTheOwnerAlive) {
    auto owner = std::make_shared<int>(0);
    const auto tied = tie_handler([] {}, owner);
    EXPECT_EQ(owner.use_count(), 1);
}

TEST(TieHandler, KeepsTheSignatureAndForwardsTheArguments) {
    const auto owner = std::make_shared<int>(0);
    const std::function<void(const std::error_code&)> handler = [](const std::error_code& code) {
        EXPECT_EQ(code, std::errc::io_error);
    };
    const std::function<void(const std::error_code&)> tied = tie_handler(handler, owner);
    tied(std::make_error_code(std::errc::io_error));

    std::unique_ptr<int> taken;
    const auto take = tie_handler(
        [&taken](std::unique_ptr<int> value, int& result) {
            taken = std::move(value);
            result = *taken;
        },
        owner);
    int result = 0;
    take(std::make_unique<int>(7), result);
    EXPECT_EQ(result, 7);
}

TEST(TieHandler, AcceptsMutableAndNoexceptLambdas) {
    const auto owner = std::make_shared<int>(0);
    int seen = 0;
    const auto counting = tie_handler([&seen, n = 0]() mutable { seen = ++n; }, owner);
    counting();
    counting();
    EXPECT_EQ(seen, 2);
    const auto silent = tie_handler([&seen]() noexcept { seen = 9; }, owner);
    silent();
    EXPECT_EQ(seen, 9);
}

TEST(TieHandler, TiedHandlersNest) {
    auto outer_owner = std::make_shared<int>(0);
    auto inner_owner = std::make_shared<int>(0);
    int calls = 0;
    const auto tied = tie_handler(
        [&calls, inner = std::weak_ptr<void>(inner_owner)] {
            tie_handler([&calls] { ++calls; }, inner)();
        },
        outer_owner);
    tied();
    EXPECT_EQ(calls, 1);
    inner_owner.reset();
    tied();
    EXPECT_EQ(calls, 1);
}

TEST(TieHandler, WhatTheHandlerThrowsPassesThrough) {
    const auto owner = std::make_shared<int>(0);
    const auto tied = tie_handler([] { throw std::out_of_range("x"); }, owner);
    EXPECT_THROW(tied(), std::out_of_range);
}

TEST(TieHandler, AnEmptyFunctionThrowsWhenCalled) {
    const auto owner = std::make_shared<int>(0);
    const auto tied = tie_handler(std::function<void()>(), owner);
    EXPECT_THROW(tied(), std::bad_function_call);
}

TEST(TieHandler, TheHandlerIsDestroyedWithTheWrapper) {
    const auto owner = std::make_shared<int>(0);
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    {
        const auto tied = tie_handler([capture] {}, owner);
        capture.reset();
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

} // namespace
