/// The library's own loop, driven from one thread: order of tasks, stopping, failing tasks.
#include "tarn/uloop.h"

#include "bus.h"
#include "support/expect_throw.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using tarn::uloop;
using tarn::test::expect_throw_msg;

using names = std::vector<std::string>;

class Uloop : public testing::Test {
protected:
    /// A task that notes its name.
    std::function<void()> named(const std::string& name) {
        return [this, name] {
            calls.push_back(name);
        };
    }

    void expect_unexpected_exit() {
        expect_throw_msg<std::runtime_error>([this] { loop.run(); },
                                             "uloop: Unexptected uloop exit");
    }

    uloop& loop = uloop::get_instance();
    names calls;
};

TEST_F(Uloop, PostingEmptyBracesIsPostingNothing) {
    loop.post({});
    loop.post(named("something"));
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_EQ(calls, names{"something"});
}

TEST_F(Uloop, ThereIsOneInstance) {
    EXPECT_EQ(&uloop::get_instance(), &loop);
}

TEST_F(Uloop, TasksPostedBeforeRunRunOnceAndInOrder) {
    loop.post(named("first"));
    loop.post(named("second"));
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_EQ(calls, (names{"first", "second"}));

    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_EQ(calls, (names{"first", "second"})) << "none runs again";
}

TEST_F(Uloop, TasksPostedFromATaskRunAfterTheWholeBatch) {
    loop.post([this] {
        calls.emplace_back("first");
        loop.post([this] {
            calls.emplace_back("posted");
            loop.post([this] {
                calls.emplace_back("posted by posted");
                loop.exit();
            });
            calls.emplace_back("posted ends");
        });
    });
    loop.post(named("second"));
    loop.post(named("third"));
    loop.run();
    EXPECT_EQ(calls,
              (names{"first", "second", "third", "posted", "posted ends", "posted by posted"}));
}

TEST_F(Uloop, PostingNeverRunsTheTaskInsideTheCall) {
    loop.post([this] {
        loop.post(named("posted"));
        EXPECT_TRUE(calls.empty());
        loop.post([this] { loop.exit(); });
    });
    loop.run();
    EXPECT_EQ(calls, (names{"posted"}));
}

TEST_F(Uloop, PostingAConstFunctionCopiesIt) {
    const std::function<void()> task = named("task");
    loop.post(task);
    EXPECT_TRUE(task);
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_EQ(calls, (names{"task"}));
}

TEST_F(Uloop, ATaskIsDestroyedBeforeTheNextOneStarts) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    loop.post([capture] {});
    loop.post([&watched, this] {
        EXPECT_TRUE(watched.expired());
        loop.exit();
    });
    capture.reset();
    EXPECT_FALSE(watched.expired());
    loop.run();
}

TEST_F(Uloop, ExitWhileNotRunningHasNoEffectOnALaterRun) {
    loop.exit();
    loop.post([this] { loop.post([this] { loop.post([this] { loop.exit(); }); }); });
    loop.post(named("ran"));
    loop.run();
    EXPECT_EQ(calls, (names{"ran"}));
}

TEST_F(Uloop, TasksPostedAfterExitNeverRunAndAreDestroyedWhenRunEnds) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    loop.post([&] {
        loop.exit();
        loop.post([capture, this] { calls.emplace_back("after exit"); });
        capture.reset();
        EXPECT_FALSE(watched.expired());
    });
    loop.run();
    EXPECT_TRUE(watched.expired());
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_TRUE(calls.empty());
}

TEST_F(Uloop, TasksQueuedWhenExitTakesEffectNeverRunAndAreDestroyedWhenRunEnds) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    loop.post([&] {
        loop.post([capture, this] { calls.emplace_back("queued before exit"); });
        capture.reset();
        loop.exit();
    });
    loop.post(named("same batch"));
    loop.run();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(calls, (names{"same batch"}));
}

TEST_F(Uloop, WhatADroppedTasksDestructionPostsWaitsForTheNextRun) {
    struct posts_on_end {
        uloop& loop;
        std::function<void()> task;
        ~posts_on_end() { loop.post(task); }
    };
    std::shared_ptr<posts_on_end> capture(new posts_on_end{loop, named("posted by destruction")});
    loop.post([&] {
        loop.exit();
        loop.post([kept = std::move(capture)] {});
    });
    loop.run();
    EXPECT_TRUE(calls.empty());
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_EQ(calls, (names{"posted by destruction"}));
}

TEST_F(Uloop, ATaskOfTheFirstBatchThatThrowsEndsTheLoopAndRunRethrows) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    loop.post([this] {
        loop.post(named("queued"));
        throw std::out_of_range("first batch");
    });
    loop.post([capture, this] { calls.emplace_back("same batch"); });
    capture.reset();
    expect_throw_msg<std::out_of_range>([this] { loop.run(); }, "first batch");
    EXPECT_TRUE(watched.expired());

    loop.post([this] { loop.exit(); });
    EXPECT_NO_THROW(loop.run()) << "the next run works";
    EXPECT_TRUE(calls.empty()) << "the rest of the batch and the queue are dropped";
}

TEST_F(Uloop, ATaskOfALaterBatchThatThrowsEndsTheLoopAndRunRethrows) {
    loop.post([this] {
        loop.post([this] {
            loop.post(named("queued"));
            throw std::out_of_range("later batch");
        });
        loop.post(named("same batch"));
    });
    expect_throw_msg<std::out_of_range>([this] { loop.run(); }, "later batch");

    loop.post([this] { loop.exit(); });
    EXPECT_NO_THROW(loop.run());
    EXPECT_TRUE(calls.empty());
}

TEST_F(Uloop, AnExceptionGoesBeforeExit) {
    loop.post([this] {
        loop.exit();
        throw std::out_of_range("after exit");
    });
    expect_throw_msg<std::out_of_range>([this] { loop.run(); }, "after exit");
    loop.post([this] { loop.exit(); });
    EXPECT_NO_THROW(loop.run());
}

TEST_F(Uloop, WhateverATaskThrowsReachesTheCallerOfRun) {
    loop.post([] { throw 42; });
    EXPECT_THROW(loop.run(), int);
}

TEST_F(Uloop, AnExceptionReportedByACallbackEndsTheLoopAndRunRethrows) {
    loop.post([this] {
        try {
            throw std::out_of_range("in a callback");
        } catch (...) {
            loop.exception_handler();
        }
        calls.emplace_back("the task goes on");
    });
    loop.post(named("so does its batch"));
    expect_throw_msg<std::out_of_range>([this] { loop.run(); }, "in a callback");
    EXPECT_EQ(calls, (names{"the task goes on", "so does its batch"}));
}

TEST_F(Uloop, TheLastReportedExceptionReplacesEarlierOnes) {
    loop.post([this] {
        for (const char* text : {"one", "two"}) {
            try {
                throw std::out_of_range(text);
            } catch (...) {
                loop.exception_handler();
            }
        }
    });
    expect_throw_msg<std::out_of_range>([this] { loop.run(); }, "two");
}

TEST_F(Uloop, AnExceptionReportedOutsideRunIsForgottenByTheNextRun) {
    try {
        throw std::out_of_range("before run");
    } catch (...) {
        loop.exception_handler();
    }
    loop.post([this] { loop.exit(); });
    EXPECT_NO_THROW(loop.run());
}

using UloopDeathTest = Uloop;

TEST_F(UloopDeathTest, ReportingWithoutAnExceptionEndsTheProcess) {
    constexpr int terminated = 3;
    EXPECT_EXIT(
        {
            std::set_terminate([] {
                std::fputs("std::terminate\n", stderr);
                std::_Exit(terminated);
            });
            loop.exception_handler();
        },
        testing::ExitedWithCode(terminated), "std::terminate");
}

TEST_F(UloopDeathTest, TasksStillQueuedAtTheEndOfTheProcessAreDestroyed) {
    struct says_so {
        ~says_so() {
            std::fputs("task destroyed\n", stderr);
            std::fflush(stderr);
        }
    };
    // Started anew rather than forked: in a forked child the tasks would be the parent's.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            auto capture = std::make_shared<says_so>();
            loop.post([kept = std::move(capture)] {});
            std::exit(0);
        },
        testing::ExitedWithCode(0), "task destroyed");
}

TEST_F(Uloop, ASecondRunFailsAndLeavesTheFirstUndisturbed) {
    loop.post([this] {
        expect_throw_msg<std::runtime_error>([this] { loop.run(); },
                                             "uloop: Can't run second uloop");
        loop.post([this] {
            calls.emplace_back("still running");
            loop.exit();
        });
    });
    loop.run();
    EXPECT_EQ(calls, (names{"still running"}));
}

TEST_F(Uloop, ASecondRunFailsAfterExitToo) {
    loop.post([this] {
        loop.exit();
        expect_throw_msg<std::runtime_error>([this] { loop.run(); },
                                             "uloop: Can't run second uloop");
    });
    EXPECT_NO_THROW(loop.run());
}

TEST_F(Uloop, ASecondRunDoesNotForgetAReportedException) {
    loop.post([this] {
        try {
            throw std::out_of_range("reported");
        } catch (...) {
            loop.exception_handler();
        }
        EXPECT_THROW(loop.run(), std::runtime_error);
    });
    expect_throw_msg<std::out_of_range>([this] { loop.run(); }, "reported");
}

TEST_F(Uloop, ALoopThatEndsThoughNobodyAskedIsAnError) {
    loop.post([this] { loop.post([] { uloop_cancelled = true; }); });
    expect_unexpected_exit();
}

TEST_F(Uloop, ALoopThatEndsInItsFirstBatchThoughNobodyAskedIsAnError) {
    loop.post([] { uloop_cancelled = true; });
    expect_unexpected_exit();
}

TEST_F(Uloop, TheDispositionsOfTheApplicationsSignalsStayWhatTheyWere) {
    const auto handler = [](int) {
    };
    std::signal(SIGINT, handler);
    std::signal(SIGCHLD, SIG_IGN);
    const auto check = [&handler] {
        struct sigaction current = {};
        sigaction(SIGINT, nullptr, &current);
        EXPECT_EQ(current.sa_handler, +handler);
        sigaction(SIGCHLD, nullptr, &current);
        EXPECT_EQ(current.sa_handler, SIG_IGN);
        for (const int signo : {SIGTERM, SIGPIPE}) {
            sigaction(signo, nullptr, &current);
            EXPECT_EQ(current.sa_handler, SIG_DFL) << signo;
        }
    };
    loop.post([&] {
        check();
        loop.exit();
    });
    loop.run();
    check();
}

} // namespace
