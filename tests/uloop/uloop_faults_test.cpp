/// The library's own loop when system and libubox calls fail, and what it does with descriptors.
#include "tarn/uloop.h"

#include "support/expect_throw.h"
#include "support/faults.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

using tarn::uloop;
using tarn::test::call;
using tarn::test::count_calls;
using tarn::test::expect_throw_msg;
using tarn::test::fail_calls;
using tarn::test::intercept;

/// The process's open descriptors.
std::set<int> open_descriptors() {
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        found.insert(std::stoi(entry.path().filename()));
    }
    // The one that the listing itself used.
    for (auto it = found.begin(); it != found.end();) {
        it = ::fcntl(*it, F_GETFD) < 0 ? found.erase(it) : std::next(it);
    }
    return found;
}

bool is_socket(int descriptor) {
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

/// Every test ends with the loop idle, reusable, and with no descriptor left open.
class UloopFaults : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(open_descriptors(), before_);
        bool ran = false;
        loop.post([&] {
            ran = true;
            loop.exit();
        });
        EXPECT_NO_THROW(loop.run());
        EXPECT_TRUE(ran);
        EXPECT_EQ(open_descriptors(), before_);
    }

    void expect_run_fails(const std::string& text) {
        expect_throw_msg<std::runtime_error>([this] { loop.run(); }, text);
    }

    uloop& loop = uloop::get_instance();

private:
    const std::set<int> before_ = open_descriptors();
};

TEST_F(UloopFaults, FailingSocketpairIsReported) {
    const intercept fault(call::socketpair, fail_calls(EMFILE));
    expect_run_fails("uloop: Can't create socketpair for post [24]" +
                     std::string(std::strerror(EMFILE)));
}

TEST_F(UloopFaults, FailingUloopInitIsReported) {
    const intercept fault(call::uloop_init, fail_calls(EMFILE));
    expect_run_fails("uloop: Can't init uloop");
}

TEST_F(UloopFaults, WhenUloopInitFailsTheDispositionsItChangedAreNotPutBack) {
    const auto changed = [](int) {
    };
    {
        const intercept fault(call::uloop_init, [&changed] {
            for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
                std::signal(signo, changed);
            }
            return EMFILE;
        });
        expect_run_fails("uloop: Can't init uloop");
    }
    for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
        EXPECT_EQ(std::signal(signo, SIG_DFL), +changed) << signo;
    }
}

TEST_F(UloopFaults, WhenUloopInitSucceedsTheDispositionsItChangedArePutBack) {
    const auto changed = [](int) {
    };
    {
        const intercept watch(call::uloop_init, [&changed] {
            for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
                std::signal(signo, changed);
            }
            return 0;
        });
        loop.post([this] { loop.exit(); });
        loop.run();
    }
    for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
        EXPECT_EQ(std::signal(signo, SIG_DFL), SIG_DFL) << signo;
    }
}

TEST_F(UloopFaults, FailingUloopFdAddIsReported) {
    const intercept fault(call::uloop_fd_add, fail_calls(ENOSPC));
    expect_run_fails("uloop: Can't add fd to uloop [28]:" + std::string(std::strerror(ENOSPC)));
}

TEST_F(UloopFaults, TasksPostedBeforeARunThatFailsToStartWaitForTheNextOne) {
    bool ran = false;
    loop.post([&ran] { ran = true; });
    for (const call which : {call::socketpair, call::uloop_init, call::uloop_fd_add}) {
        const intercept fault(which, fail_calls(EMFILE));
        EXPECT_THROW(loop.run(), std::runtime_error);
        EXPECT_FALSE(ran);
    }
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_TRUE(ran);
}

TEST_F(UloopFaults, AnExitThatCameBeforeAFailedStartIsNotRemembered) {
    for (const call which : {call::uloop_init, call::uloop_fd_add}) {
        const intercept fault(which, [this] {
            loop.exit();
            return EMFILE;
        });
        EXPECT_THROW(loop.run(), std::runtime_error);
    }
}

TEST_F(UloopFaults, FailingToReadADispositionIsReportedInTheOrderOfReading) {
    int number = 0;
    for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
        const intercept fault(call::sigaction_read, fail_calls(EINVAL, 1, number));
        expect_run_fails("unix_signal_actions failed to get old action of signal " +
                         std::to_string(signo) + " [22]: " + std::strerror(EINVAL));
        ++number;
    }
}

TEST_F(UloopFaults, DispositionsArePutBackBeforeTheLoopWatchesAnything) {
    const auto changed = [](int) {
    };
    bool put_back = false;
    const intercept start(call::uloop_init, [&changed] {
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            std::signal(signo, changed);
        }
        return 0;
    });
    // libubox's own descriptors may come before; the last one is the wake-up's.
    const intercept watch(call::uloop_fd_add, [&put_back] {
        put_back = true;
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            struct sigaction current = {};
            ::sigaction(signo, nullptr, &current);
            put_back = put_back && current.sa_handler == SIG_DFL;
        }
        return 0;
    });
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_TRUE(put_back);
}

TEST_F(UloopFaults, FailingToPutBackADispositionIsReported) {
    std::unique_ptr<intercept> fault;
    {
        const intercept start(call::uloop_init, [&fault] {
            std::signal(SIGPIPE, [](int) {});
            std::signal(SIGINT, [](int) {});
            std::signal(SIGTERM, [](int) {});
            std::signal(SIGCHLD, [](int) {});
            // With its four handlers taken already, libubox installs none, so that the first call
            // is the one that puts SIGINT back.
            fault = std::make_unique<intercept>(call::sigaction_install, fail_calls(EINVAL));
            return 0;
        });
        expect_run_fails("unix_signal_actions failed to set back old action for signal 2 [22]: " +
                         std::string(std::strerror(EINVAL)));
    }
    fault.reset();
    for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
        std::signal(signo, SIG_DFL);
    }
}

TEST_F(UloopFaults, AnInterruptedWakeUpWriteIsRepeated) {
    bool ran = false;
    loop.post([&] {
        int writes = 0;
        {
            const intercept fault(call::write, [&writes] { return ++writes <= 3 ? EINTR : 0; });
            loop.post([&] {
                ran = true;
                loop.exit();
            });
        }
        EXPECT_EQ(writes, 4);
    });
    loop.run();
    EXPECT_TRUE(ran);
}

TEST_F(UloopFaults, AFailingWakeUpWriteLeavesPostAndTheTaskIsNotQueued) {
    const std::string text = "uloop: Can't notify uloop: Can't write into socketpair [32]: " +
                             std::string(std::strerror(EPIPE));
    bool ran = false;
    loop.post([&] {
        std::function<void()> task = [&ran] {
            ran = true;
        };
        {
            const intercept fault(call::write, fail_calls(EPIPE));
            expect_throw_msg<std::runtime_error>([&] { loop.post(std::move(task)); }, text);
        }
        EXPECT_TRUE(task) << "it stays the caller's"; // NOLINT(bugprone-use-after-move)
        loop.post([this] { loop.exit(); });
    });
    loop.run();
    EXPECT_FALSE(ran);
}

TEST_F(UloopFaults, WhatWasPostedBehindATaskWhoseWakeUpFailedIsWokenForByTheNextPost) {
    bool ran = false;
    loop.post([&] {
        {
            bool nested = false;
            const intercept fault(call::write, [&] {
                if (!nested) {
                    nested = true;
                    // Another thread relies on the byte that is being written.
                    std::thread([&] { loop.post([&ran] { ran = true; }); }).join();
                }
                return EPIPE;
            });
            EXPECT_THROW(loop.post([] { ADD_FAILURE() << "it is not queued"; }),
                         std::runtime_error);
        }
        loop.post([this] { loop.exit(); });
    });
    loop.run();
    EXPECT_TRUE(ran);
}

TEST_F(UloopFaults, AnExitBehindATaskWhoseWakeUpFailsEndsTheLoop) {
    std::thread stopper;
    loop.post([&] {
        bool nested = false;
        const intercept fault(call::write, [&] {
            if (std::exchange(nested, true)) {
                return 0;
            }
            // Finds the task queued, and the byte not yet written.
            std::promise<void> returned;
            auto has_returned = returned.get_future();
            stopper = std::thread([this, done = std::move(returned)]() mutable {
                loop.exit();
                done.set_value();
            });
            // Either it relies on this byte and returns, or it waits to write its own.
            has_returned.wait_for(std::chrono::milliseconds(200));
            return EPIPE;
        });
        EXPECT_THROW(loop.post([] { ADD_FAILURE() << "it is not queued"; }), std::runtime_error);
        stopper.join(); // while its write is watched
    });
    loop.run();
}

TEST_F(UloopFaults, ATaskThatRunsAlthoughItsWakeUpFailsWasPosted) {
    std::promise<void> writing;
    std::promise<void> ran;
    std::thread poster;
    const auto post_while_the_run_starts = [&] {
        {
            const intercept fault(call::write, [&] {
                writing.set_value();
                ran.get_future().wait();
                return EPIPE;
            });
            EXPECT_NO_THROW(loop.post([&] { ran.set_value(); }));
        }
        loop.exit();
    };
    // What is queued by then the run finds without having been woken.
    const intercept at_start(call::uloop_fd_add, [&] {
        poster = std::thread(post_while_the_run_starts);
        writing.get_future().wait();
        return 0;
    });
    loop.run();
    poster.join();
}

TEST_F(UloopFaults, AFailingWakeUpWriteLeavesExitAndTheLoopGoesOn) {
    const std::string text = "uloop: Can't notify uloop: Can't write into socketpair [32]: " +
                             std::string(std::strerror(EPIPE));
    bool went_on = false;
    loop.post([&] {
        {
            const intercept fault(call::write, fail_calls(EPIPE));
            expect_throw_msg<std::runtime_error>([this] { loop.exit(); }, text);
        }
        loop.post([&] {
            went_on = true;
            loop.exit();
        });
    });
    loop.run();
    EXPECT_TRUE(went_on);
}

TEST_F(UloopFaults, AnInterruptedWakeUpReadIsRepeated) {
    int reads = 0;
    bool ran = false;
    const intercept fault(call::read, [&reads] { return ++reads <= 3 ? EINTR : 0; });
    loop.post([&] {
        loop.post([&] {
            EXPECT_EQ(reads, 4);
            ran = true;
            loop.exit();
        });
    });
    loop.run();
    EXPECT_TRUE(ran);
}

TEST_F(UloopFaults, AFailingWakeUpReadEndsTheLoopAndDropsTheTasks) {
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    bool ran = false;
    {
        const intercept fault(call::read, fail_calls(EIO));
        loop.post([&] { loop.post([&ran, kept = std::move(capture)] { ran = true; }); });
        expect_run_fails(
            "uloop: Can't clean uloop notify buffer: Can't read from socketpair [5]: " +
            std::string(std::strerror(EIO)));
    }
    EXPECT_FALSE(ran);
    EXPECT_TRUE(watched.expired());
}

TEST_F(UloopFaults, PostingAnEmptyFunctionDoesNothingNotEvenAWakeUp) {
    int writes = 0;
    const intercept watch(call::write, count_calls(writes));
    loop.post(nullptr);
    loop.post(std::function<void()>());
    const std::function<void()> empty;
    loop.post(empty);
    loop.post([&] {
        loop.post(nullptr);
        loop.post(empty);
        EXPECT_EQ(writes, 0);
        loop.exit();
    });
    EXPECT_NO_THROW(loop.run());
}

TEST_F(UloopFaults, TasksPostedBeforeRunNeedNoWakeUpAndRunBeforeTheLoopWaits) {
    int writes = 0;
    int reads = 0;
    const intercept watch_writes(call::write, count_calls(writes));
    const intercept watch_reads(call::read, count_calls(reads));
    loop.post([&] {
        EXPECT_EQ(writes, 0);
        EXPECT_EQ(reads, 0);
        loop.exit();
    });
    loop.run();
}

TEST_F(UloopFaults, ABurstOfPostsCostsOneWriteAndOneRead) {
    int writes = 0;
    int reads = 0;
    int ran = 0;
    const intercept watch_writes(call::write, count_calls(writes));
    const intercept watch_reads(call::read, count_calls(reads));
    loop.post([&] {
        for (int i = 0; i < 1000; ++i) {
            loop.post([&ran] { ++ran; });
        }
        EXPECT_EQ(writes, 1);
        loop.post([&] {
            EXPECT_EQ(ran, 1000);
            EXPECT_EQ(writes, 1);
            EXPECT_EQ(reads, 1);
            loop.exit();
        });
    });
    loop.run();
    EXPECT_EQ(ran, 1000);
}

TEST_F(UloopFaults, ExitTwiceWritesOneWakeUpByteAndStopsTheLoopOnce) {
    int writes = 0;
    const intercept watch(call::write, count_calls(writes));
    loop.post([&] {
        loop.exit();
        loop.exit();
        EXPECT_EQ(writes, 1);
    });
    loop.run();
    EXPECT_EQ(writes, 1);
}

TEST_F(UloopFaults, ExitWhileNotRunningWritesNothing) {
    int writes = 0;
    const intercept watch(call::write, count_calls(writes));
    loop.exit();
    loop.notify();
    EXPECT_EQ(writes, 0);
}

TEST_F(UloopFaults, ExitBetweenTheStartOfRunAndItsFirstBatchNeverHangs) {
    for (const call moment : {call::uloop_init, call::uloop_fd_add}) {
        auto capture = std::make_shared<int>(0);
        const std::weak_ptr<int> watched = capture;
        bool ran = false;
        loop.post([&ran, kept = std::move(capture)] { ran = true; });
        int writes = 0;
        const intercept watch(call::write, count_calls(writes));
        const intercept stop(moment, [this] {
            loop.exit();
            return 0;
        });
        EXPECT_NO_THROW(loop.run());
        EXPECT_EQ(writes, 0) << "no byte was there to end a waiting loop";
        EXPECT_FALSE(ran);
        EXPECT_TRUE(watched.expired());
    }
}

TEST_F(UloopFaults, ExitBeforeTheFirstBatchOfAnEmptyQueueNeverHangs) {
    const intercept stop(call::uloop_fd_add, [this] {
        loop.exit();
        return 0;
    });
    EXPECT_NO_THROW(loop.run());
}

TEST_F(UloopFaults, WhatIsPostedWhileRunStartsRunsInTheFirstBatch) {
    bool ran = false;
    const intercept post(call::uloop_fd_add, [&] {
        loop.post([&] {
            ran = true;
            loop.post([this] { loop.exit(); });
        });
        return 0;
    });
    loop.run();
    EXPECT_TRUE(ran);
}

TEST_F(UloopFaults, TheWakeUpDescriptorsAreClosedOnExec) {
    const std::set<int> before = open_descriptors();
    loop.post([&] {
        int sockets = 0;
        for (const int descriptor : open_descriptors()) {
            if (before.count(descriptor) == 0 && is_socket(descriptor)) {
                ++sockets;
                EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
            }
        }
        EXPECT_GE(sockets, 2);
        loop.exit();
    });
    loop.run();
}

TEST_F(UloopFaults, TheWakeUpIsOneByteOfOneFromTheFirstEndOfAStreamToTheSecond) {
    const std::set<int> before = open_descriptors();
    loop.post([&] {
        std::vector<int> pair; // the system gives the first end the lower number
        for (const int descriptor : open_descriptors()) {
            int type = 0;
            socklen_t size = sizeof type;
            if (before.count(descriptor) == 0 &&
                ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 &&
                type == SOCK_STREAM) {
                pair.push_back(descriptor);
            }
        }
        loop.post([this] { loop.exit(); });
        ASSERT_EQ(pair.size(), 2U);
        char bytes[2] = {};
        EXPECT_LT(::recv(pair[0], bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT), 0);
        ASSERT_EQ(::recv(pair[1], bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT), 1);
        EXPECT_EQ(bytes[0], 1);
    });
    loop.run();
}

TEST_F(UloopFaults, TheWakeUpByteOfAnExitIsNotRead) {
    int writes = 0;
    int reads = 0;
    const intercept watch_writes(call::write, count_calls(writes));
    const intercept watch_reads(call::read, count_calls(reads));
    loop.post([this] { loop.exit(); });
    loop.run();
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(reads, 0);
}

/// Whether `use` ends on a thread of its own while this one goes no further. If it waits for this
/// one, it ends later.
class elsewhere {
public:
    explicit elsewhere(const std::function<void()>& use)
        : done_(std::async(std::launch::async, use)) {}
    bool ends() const {
        return done_.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    }

private:
    std::future<void> done_;
};

TEST_F(UloopFaults, PostingAnEmptyFunctionWaitsForNobody) {
    std::vector<std::unique_ptr<elsewhere>> waiting; // until the lock is free, if it must
    bool tried = false;
    loop.post([&] {
        // The lock is held while the byte is written.
        const intercept locked(call::write, [&] {
            if (!std::exchange(tried, true)) {
                waiting.push_back(std::make_unique<elsewhere>([this] {
                    loop.post(nullptr);
                    const std::function<void()> empty;
                    loop.post(empty);
                }));
                EXPECT_TRUE(waiting.back()->ends());
            }
            return 0;
        });
        loop.exit();
    });
    loop.run();
    EXPECT_TRUE(tried);
}

TEST_F(UloopFaults, NoLockIsHeldWhileATaskRuns) {
    const auto check = [this] {
        EXPECT_TRUE(elsewhere([this] { loop.post([] {}); }).ends());
    };
    loop.post([&] {
        check(); // in the batch of the start
        loop.post([&] {
            check(); // in one that a wake-up has brought
            loop.exit();
        });
    });
    loop.run();
}

TEST_F(UloopFaults, NoLockIsHeldWhileATaskIsDestroyed) {
    int destroyed = 0;
    const auto checks_its_end = [&] {
        const std::shared_ptr<void> kept(nullptr, [&](void*) {
            EXPECT_TRUE(elsewhere([this] { loop.exit(); }).ends());
            ++destroyed;
        });
        return [kept] {
        };
    };
    loop.post(checks_its_end()); // has run
    loop.post([&] {
        loop.post(checks_its_end()); // is still queued
        loop.exit();
    });
    loop.run();
    EXPECT_EQ(destroyed, 2);
    loop.post([&] {
        loop.post(checks_its_end());
        throw std::out_of_range("x");
    });
    loop.post(checks_its_end()); // is dropped with its batch
    EXPECT_THROW(loop.run(), std::out_of_range);
    EXPECT_EQ(destroyed, 4);
    const intercept fault(call::read, fail_calls(EIO));
    loop.post([&] { loop.post(checks_its_end()); });
    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_EQ(destroyed, 5);
}

using UloopFaultsDeathTest = UloopFaults;

TEST_F(UloopFaultsDeathTest, NoLockIsHeldWhileTheEndOfTheProcessDestroysATask) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            std::shared_ptr<void> kept(nullptr, [](void*) {
                const bool free = elsewhere([] { uloop::get_instance().exit(); }).ends();
                std::fputs(free ? "free\n" : "locked\n", stderr);
            });
            loop.post([kept = std::move(kept)] {});
            std::exit(0);
        },
        testing::ExitedWithCode(0), "free");
}

TEST_F(UloopFaults, AFailingTaskLeavesNoDescriptorOpen) {
    loop.post([] { throw std::out_of_range("x"); });
    EXPECT_THROW(loop.run(), std::out_of_range);
    loop.post([this] { loop.post([] { throw std::out_of_range("x"); }); });
    EXPECT_THROW(loop.run(), std::out_of_range);
}

} // namespace
