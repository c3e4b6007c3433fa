/// Handlers that a link takes out of service.
#include "tarn/misc/link_handler.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using tarn::misc::link_handler;
using tarn::misc::linkhandlerdetail::wrap_handler;
using tarn::utils::link;

TEST(LinkHandler, CallsGoThroughAnyNumberOfTimesUntilTheLinkIsReleased) {
    int calls = 0;
    auto [wrapped, l] = link_handler([&calls] { ++calls; }, false);
    EXPECT_TRUE(l.active());
    wrapped();
    wrapped();
    wrapped();
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(l.active());
    EXPECT_NO_THROW(l.release());
    EXPECT_FALSE(l.active());
    wrapped();
    EXPECT_EQ(calls, 3);
}

TEST(LinkHandler, WithOnceACopyThatThrowsLeavesTheHandlerInService) {
    struct fragile {
        bool* fails;
        int* calls;
        fragile(bool* when, int* counter)
            : fails(when)
            , calls(counter) {}
        fragile(const fragile& other)
            : fails(other.fails)
            , calls(other.calls) {
            if (*fails) {
                throw std::runtime_error("no copy");
            }
        }
        void operator()() const { ++*calls; }
    };
    bool fails = false;
    int calls = 0;
    auto [wrapped, l] = link_handler(std::function<void()>(fragile(&fails, &calls)), true);
    fails = true;
    EXPECT_THROW(wrapped(), std::runtime_error);
    EXPECT_TRUE(l.active());
    fails = false;
    wrapped();
    EXPECT_FALSE(l.active());
    wrapped();
    EXPECT_EQ(calls, 1);
}

TEST(LinkHandler, WithOnceOneOfManyCallsAtATimeRunsTheHandler) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> calls{0};
        std::atomic<bool> go{false};
        const auto made = link_handler(std::function<void()>([&calls] { ++calls; }), true);
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i) {
            callers.emplace_back([&go, wrapped = made.first] {
                while (!go) {}
                wrapped();
            });
        }
        go = true;
        for (auto& caller : callers) {
            caller.join();
        }
        ASSERT_EQ(calls, 1);
    }
}

TEST(LinkHandler, WithOnceRunsTheHandlerOnTheFirstCallOnly) {
    int calls = 0;
    link observed;
    auto [wrapped, l] = link_handler(
        [&calls, &observed] {
            ++calls;
            EXPECT_FALSE(observed.active()) << "inactive from within the call onwards";
        },
        true);
    observed.assign(l);
    EXPECT_TRUE(l.active());
    wrapped();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(l.active());
    wrapped();
    EXPECT_EQ(calls, 1);
    EXPECT_NO_THROW(l.release());
}

TEST(LinkHandler, WithOnceACallFromWithinTheHandlerDoesNothing) {
    int calls = 0;
    std::function<void()> again;
    auto [wrapped, l] = link_handler(
        [&calls, &again] {
            ++calls;
            again();
        },
        true);
    again = wrapped;
    wrapped();
    EXPECT_EQ(calls, 1);
}

TEST(LinkHandler, DestroyingEveryCopyOfTheWrappedHandlerDestroysTheHandlerAndEndsTheLink) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    auto made = link_handler([capture] {}, false);
    capture.reset();
    const link l = made.second;
    std::function<void()> copy = made.first;
    made.first = nullptr;
    EXPECT_TRUE(l.active());
    EXPECT_FALSE(watched.expired());
    copy = nullptr;
    EXPECT_FALSE(l.active());
    EXPECT_TRUE(watched.expired());
}

TEST(LinkHandler, ReleasingDestroysTheHandlerWhileTheWrapperIsStillHeld) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    auto [wrapped, l] = link_handler([capture] {}, false);
    capture.reset();
    l.release();
    EXPECT_TRUE(watched.expired());
    EXPECT_NO_THROW(wrapped());
}

TEST(LinkHandler, WithOnceTheStoredHandlerIsDestroyedByTheCall) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    auto [wrapped, l] = link_handler([capture] {}, true);
    capture.reset();
    wrapped();
    EXPECT_TRUE(watched.expired());
}

TEST(LinkHandler, TheHandlerMayReleaseItsOwnLink) {
    int calls = 0;
    link own;
    auto capture = std::make_shared<int>(42);
    auto [wrapped, l] = link_handler(
        [&calls, &own, capture] {
            own.release();
            calls += *capture; // the running copy keeps its captures
        },
        false);
    own.assign(l);
    wrapped();
    wrapped();
    EXPECT_EQ(calls, 42);
}

TEST(LinkHandler, EveryCallRunsAFreshCopy) {
    std::vector<int> seen;
    auto [wrapped, l] = link_handler([&seen, n = 0]() mutable { seen.push_back(++n); }, false);
    wrapped();
    wrapped();
    EXPECT_EQ(seen, (std::vector<int>{1, 1}));
}

TEST(LinkHandler, ForwardsTheArguments) {
    std::error_code got;
    const std::function<void(const std::error_code&)> handler =
        [&got](const std::error_code& code) {
            got = code;
        };
    auto made = link_handler(handler, false);
    const std::function<void(const std::error_code&)> wrapped = made.first;
    wrapped(std::make_error_code(std::errc::io_error));
    EXPECT_EQ(got, std::errc::io_error);

    std::string text;
    auto moved = link_handler([&text](std::unique_ptr<std::string> s) { text = *s; }, false);
    moved.first(std::make_unique<std::string>("moved"));
    EXPECT_EQ(text, "moved");
}

TEST(LinkHandler, WhatTheHandlerThrowsPassesThrough) {
    auto [wrapped, l] = link_handler([] { throw std::out_of_range("x"); }, false);
    EXPECT_THROW(wrapped(), std::out_of_range);
    EXPECT_TRUE(l.active());
}

TEST(LinkHandler, WithOnceTheLinkIsInactiveWhenAnExceptionLeaves) {
    auto [wrapped, l] = link_handler([] { throw std::out_of_range("x"); }, true);
    EXPECT_THROW(wrapped(), std::out_of_range);
    EXPECT_FALSE(l.active());
    EXPECT_NO_THROW(wrapped());
}

TEST(LinkHandler, AnEmptyFunctionThrowsAtTheFirstCallThatGetsThrough) {
    auto [wrapped, l] = link_handler(std::function<void()>(), false);
    EXPECT_TRUE(l.active());
    EXPECT_THROW(wrapped(), std::bad_function_call);
    l.release();
    EXPECT_NO_THROW(wrapped());
}

TEST(LinkHandler, TheLinkAloneKeepsNoHandler) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    const link l = link_handler([capture] {}, false).second;
    capture.reset();
    EXPECT_FALSE(l.active());
    EXPECT_TRUE(watched.expired());
}

TEST(LinkHandler, ADestructorOfACaptureMayUseTheLink) {
    struct asks_on_end {
        link* l;
        bool* active;
        ~asks_on_end() {
            if (l != nullptr) {
                *active = l->active();
                l->release();
            }
        }
    };
    bool active = true;
    link l;
    auto capture = std::make_shared<asks_on_end>(asks_on_end{nullptr, &active});
    capture->l = &l;
    auto made = link_handler([capture] {}, false);
    capture.reset();
    l.assign(made.second);
    l.release();
    EXPECT_FALSE(active);
}

TEST(WrapHandler, GivesTheWrapperTheHandlersPlaceAndTheLink) {
    using function = std::function<void(int)>;
    int sum = 0;
    auto [wrapped, place, l] = wrap_handler<function, function>([&sum](int n) { sum += n; }, false);
    EXPECT_FALSE(place.expired());
    wrapped(2);
    EXPECT_EQ(sum, 2);
    l.release();
    EXPECT_TRUE(place.expired());
    wrapped(3);
    EXPECT_EQ(sum, 2) << "a call that finds the handler gone does nothing";
}

TEST(LinkHandlerThreads, ReleasingWhileAnotherThreadCallsIsSafe) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> started{0};
        auto capture = std::make_shared<std::string>("alive");
        const std::weak_ptr<std::string> watched = capture;
        auto made = link_handler([capture, &started] { started += *capture == "alive"; }, false);
        capture.reset();
        const link l = made.second;
        std::thread caller([wrapped = std::move(made.first), &started, &l] {
            while (l.active()) {
                wrapped();
            }
            started = -1000;
            wrapped();
        });
        std::vector<std::thread> releasers;
        for (int i = 0; i < 2; ++i) {
            releasers.emplace_back([copy = l, &started]() mutable {
                while (started < 5) {
                    if (started < 0) {
                        break;
                    }
                    std::this_thread::yield();
                }
                copy.release();
                EXPECT_FALSE(copy.active());
            });
        }
        for (auto& t : releasers) {
            t.join();
        }
        caller.join();
        EXPECT_EQ(started, -1000) << "no call after the link was seen inactive";
        EXPECT_TRUE(watched.expired());
    }
}

TEST(LinkHandlerThreads, ReleasingWhileAnotherThreadDestroysTheHandlerIsSafe) {
    for (int round = 0; round < 200; ++round) {
        auto made =
            link_handler([text = std::string(100, 'x')] { EXPECT_EQ(text.size(), 100U); }, false);
        std::atomic<bool> go{false};
        std::thread destroyer([&go, &made] {
            while (!go) {
                std::this_thread::yield();
            }
            made.first = nullptr;
        });
        link l = made.second;
        go = true;
        EXPECT_NO_THROW(l.release());
        destroyer.join();
        EXPECT_FALSE(l.active());
    }
}

TEST(LinkHandlerThreads, WithOnceOnlyOneOfSeveralThreadsRunsTheHandler) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> calls{0};
        std::atomic<int> ready{0};
        auto made = link_handler([&calls] { ++calls; }, true);
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([wrapped = made.first, &ready] {
                ++ready;
                while (ready < 3) {
                    std::this_thread::yield();
                }
                wrapped();
            });
        }
        for (auto& t : threads) {
            t.join();
        }
        ASSERT_EQ(calls, 1);
    }
}

} // namespace
