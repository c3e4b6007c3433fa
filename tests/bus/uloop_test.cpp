/// uloop's rounds and descriptors.
#include "bus.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "uloop_fixture.h"

namespace {

using ubox_test::event_fd;
using ubox_test::socket_pair;
using ubox_test::timer;
using ubox_test::uloop_test;
using ubox_test::watched;

bool is_non_blocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

using UloopFd = uloop_test;

TEST_F(UloopFd, ReadableDescriptorIsServedWithRead) {
    unsigned seen = 0;
    event_fd ready([&](event_fd& self, unsigned events) {
        seen = events;
        EXPECT_FALSE(self.eof);
        EXPECT_FALSE(self.error);
        uloop_end();
    });
    ASSERT_EQ(uloop_fd_add(&ready, ULOOP_READ), 0);
    EXPECT_TRUE(ready.registered);
    EXPECT_EQ(ready.flags, ULOOP_READ);
    ready.raise();
    run();
    EXPECT_EQ(seen, ULOOP_READ);
}

TEST_F(UloopFd, WritableDescriptorIsServedWithWrite) {
    unsigned seen = 0;
    event_fd writable([&](event_fd&, unsigned events) {
        seen = events;
        uloop_end();
    });
    ASSERT_EQ(uloop_fd_add(&writable, ULOOP_WRITE), 0);
    run();
    EXPECT_EQ(seen, unsigned{ULOOP_WRITE});
}

TEST_F(UloopFd, BothEventsComeInOneCall) {
    unsigned seen = 0;
    event_fd both([&](event_fd&, unsigned events) {
        seen = events;
        uloop_end();
    });
    both.raise();
    ASSERT_EQ(uloop_fd_add(&both, ULOOP_READ | ULOOP_WRITE), 0);
    run();
    EXPECT_EQ(seen, ULOOP_READ | ULOOP_WRITE);
}

TEST_F(UloopFd, UnreadDataIsReportedAgain) {
    int calls = 0;
    event_fd ready([&](event_fd&, unsigned) {
        if (++calls == 3) {
            uloop_end();
        }
    });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    run();
    EXPECT_EQ(calls, 3);
}

TEST_F(UloopFd, EdgeTriggeredDescriptorIsReportedOnce) {
    int calls = 0;
    event_fd ready([&](event_fd&, unsigned) { ++calls; });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, AddingMakesItNonBlocking) {
    event_fd ready([](event_fd&, unsigned) {});
    ASSERT_FALSE(is_non_blocking(ready.fd));
    uloop_fd_add(&ready, ULOOP_READ);
    EXPECT_TRUE(is_non_blocking(ready.fd));
}

TEST_F(UloopFd, BlockingFlagLeavesItBlocking) {
    event_fd ready([](event_fd&, unsigned) {});
    uloop_fd_add(&ready, ULOOP_READ | ULOOP_BLOCKING);
    EXPECT_FALSE(is_non_blocking(ready.fd));
    EXPECT_EQ(unsigned{ready.flags}, unsigned{ULOOP_READ | ULOOP_BLOCKING});
}

TEST_F(UloopFd, AddingClearsEofAndError) {
    event_fd ready([](event_fd&, unsigned) {});
    ready.eof = true;
    ready.error = true;
    uloop_fd_add(&ready, ULOOP_READ);
    EXPECT_FALSE(ready.eof);
    EXPECT_FALSE(ready.error);
}

TEST_F(UloopFd, AddingAgainChangesWhatItIsWatchedFor) {
    unsigned seen = 0;
    event_fd both([&](event_fd&, unsigned events) {
        seen = events;
        uloop_end();
    });
    both.raise();
    uloop_fd_add(&both, ULOOP_READ);
    EXPECT_EQ(uloop_fd_add(&both, ULOOP_WRITE), 0);
    run();
    EXPECT_EQ(seen, unsigned{ULOOP_WRITE});
}

TEST_F(UloopFd, AddingForNothingDeletes) {
    event_fd ready([](event_fd&, unsigned) { ADD_FAILURE(); });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    EXPECT_EQ(uloop_fd_add(&ready, 0), 0);
    EXPECT_FALSE(ready.registered);
    run_rounds();
}

TEST_F(UloopFd, AddingABadDescriptorFails) {
    uloop_fd bad{};
    bad.fd = -1;
    EXPECT_EQ(uloop_fd_add(&bad, ULOOP_READ), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(UloopFd, DeletingWhatIsNotWatchedIsFine) {
    event_fd ready([](event_fd&, unsigned) {});
    EXPECT_EQ(uloop_fd_delete(&ready), 0);
}

TEST_F(UloopFd, DeletedIsNotServed) {
    event_fd ready([](event_fd&, unsigned) { ADD_FAILURE(); });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    EXPECT_EQ(uloop_fd_delete(&ready), 0);
    EXPECT_FALSE(ready.registered);
    run_rounds();
}

TEST_F(UloopFd, HangUpSetsEofBeforeTheCallbackEvenWithUnreadData) {
    const auto ends = socket_pair();
    std::string got;
    bool eof_at_first_call = false;
    watched reader(ends[0], [&](watched& self, unsigned events) {
        EXPECT_EQ(events, unsigned{ULOOP_READ});
        eof_at_first_call = self.eof;
        char data[8];
        const ssize_t count = read(self.fd, data, sizeof data);
        got.assign(data, count < 0 ? 0 : static_cast<std::size_t>(count));
        uloop_end();
    });
    ASSERT_EQ(write(ends[1], "last", 4), 4);
    shutdown(ends[1], SHUT_WR);
    uloop_fd_add(&reader, ULOOP_READ);
    run();
    EXPECT_TRUE(eof_at_first_call);
    EXPECT_EQ(got, "last");
    // One direction only: it is still watched, for writing for example.
    EXPECT_FALSE(reader.error);
    EXPECT_TRUE(reader.registered);
    close(ends[1]);
}

TEST_F(UloopFd, ClosedPeerSetsErrorToo) {
    const auto ends = socket_pair();
    int calls = 0;
    watched reader(ends[0], [&](watched& self, unsigned events) {
        ++calls;
        EXPECT_EQ(events, unsigned{ULOOP_READ});
        EXPECT_TRUE(self.eof);
        EXPECT_TRUE(self.error);
        EXPECT_FALSE(self.registered);
    });
    uloop_fd_add(&reader, ULOOP_READ);
    close(ends[1]);
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, HangUpWithoutDataIsReportedOnceWithoutEvents) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    int calls = 0;
    watched reader(ends[0], [&](watched& self, unsigned events) {
        ++calls;
        EXPECT_EQ(events, 0u);
        EXPECT_TRUE(self.error);
    });
    uloop_fd_add(&reader, ULOOP_READ);
    close(ends[1]);
    run_rounds();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(reader.registered);
}

TEST_F(UloopFd, ErrorDeletesItBeforeTheCallbackWhichRunsOnce) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    int calls = 0;
    watched writer(ends[1], [&](watched& self, unsigned) {
        ++calls;
        EXPECT_TRUE(self.error);
        EXPECT_FALSE(self.registered);
    });
    uloop_fd_add(&writer, ULOOP_WRITE);
    close(ends[0]);
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, CallbackMayAddItAgainAfterAnError) {
    const auto ends = socket_pair();
    int calls = 0;
    watched reader(ends[0], [&](watched& self, unsigned) {
        if (++calls == 1) {
            EXPECT_EQ(uloop_fd_add(&self, ULOOP_READ), 0);
            EXPECT_FALSE(self.error);
        } else {
            uloop_end();
        }
    });
    uloop_fd_add(&reader, ULOOP_READ);
    close(ends[1]);
    run();
    EXPECT_EQ(calls, 2);
}

TEST_F(UloopFd, CallbackMayFreeItsOwnRecord) {
    auto* const ready = new event_fd([](event_fd& self, unsigned) {
        delete &self;
        uloop_end();
    });
    ready->raise();
    uloop_fd_add(ready, ULOOP_READ);
    run();
}

TEST_F(UloopFd, CallbackMayFreeAllOthersOfTheBatch) {
    std::list<std::unique_ptr<event_fd>> all;
    int calls = 0;
    for (int i = 0; i < 5; ++i) {
        all.push_back(std::make_unique<event_fd>([&](event_fd& self, unsigned) {
            ++calls;
            all.remove_if([&](const auto& each) { return each.get() != &self; });
            self.clear();
        }));
        all.back()->raise();
        uloop_fd_add(all.back().get(), ULOOP_READ);
    }
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, EventFetchedBeforeADeleteIsNotServedAfterAddingAgain) {
    std::vector<std::unique_ptr<event_fd>> both;
    int calls = 0;
    for (int i = 0; i < 2; ++i) {
        both.push_back(std::make_unique<event_fd>([&](event_fd& self, unsigned) {
            ++calls;
            event_fd& other = *both[both[0].get() == &self ? 1 : 0];
            uloop_fd_delete(&other);
            other.clear();
            uloop_fd_add(&other, ULOOP_READ);
            self.clear();
        }));
        both.back()->raise();
        uloop_fd_add(both.back().get(), ULOOP_READ);
    }
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, EventOfTheBatchIsServedThoughItIsNotWatchedForAnyMore) {
    std::vector<std::unique_ptr<event_fd>> both;
    std::vector<unsigned> seen;
    for (int i = 0; i < 2; ++i) {
        both.push_back(std::make_unique<event_fd>([&](event_fd& self, unsigned events) {
            seen.push_back(events);
            if (seen.size() == 1) {
                uloop_fd_add(both[both[0].get() == &self ? 1 : 0].get(), ULOOP_WRITE);
            }
            uloop_fd_delete(&self);
        }));
        both.back()->raise();
        uloop_fd_add(both.back().get(), ULOOP_READ);
    }
    run_rounds();
    EXPECT_EQ(seen, (std::vector<unsigned>{ULOOP_READ, ULOOP_READ}));
}

TEST_F(UloopFd, HangUpOfEveryDescriptorOfABatchIsNotedBeforeTheFirstCallback) {
    std::array<std::array<int, 2>, 2> pairs{socket_pair(), socket_pair()};
    std::vector<std::unique_ptr<watched>> both;
    int calls = 0;
    for (const auto& ends : pairs) {
        both.push_back(std::make_unique<watched>(ends[0], [&](watched& self, unsigned) {
            ++calls;
            for (const auto& each : both) {
                EXPECT_TRUE(each->eof);
                EXPECT_FALSE(each->error);
            }
            uloop_fd_delete(&self);
        }));
        uloop_fd_add(both.back().get(), ULOOP_READ);
        shutdown(ends[1], SHUT_WR);
    }
    run_rounds();
    EXPECT_EQ(calls, 2);
    for (const auto& ends : pairs) {
        close(ends[1]);
    }
}

TEST_F(UloopFd, ErrorOfEveryDescriptorOfABatchDeletesAllBeforeTheFirstCallback) {
    std::array<std::array<int, 2>, 2> pairs{socket_pair(), socket_pair()};
    std::vector<std::unique_ptr<watched>> both;
    int calls = 0;
    for (const auto& ends : pairs) {
        both.push_back(std::make_unique<watched>(ends[0], [&](watched&, unsigned) {
            ++calls;
            for (const auto& each : both) {
                EXPECT_TRUE(each->error);
                EXPECT_FALSE(each->registered);
            }
        }));
        uloop_fd_add(both.back().get(), ULOOP_READ);
        close(ends[1]);
    }
    run_rounds();
    EXPECT_EQ(calls, 2);
}

TEST_F(UloopFd, OneOfABatchThatIsDeletedAfterAnErrorIsNotServed) {
    std::array<std::array<int, 2>, 2> pairs{socket_pair(), socket_pair()};
    std::vector<std::unique_ptr<watched>> both;
    int calls = 0;
    for (const auto& ends : pairs) {
        both.push_back(std::make_unique<watched>(ends[0], [&](watched& self, unsigned) {
            ++calls;
            both[both[0].get() == &self ? 1 : 0].reset();
        }));
        uloop_fd_add(both.back().get(), ULOOP_READ);
        close(ends[1]);
    }
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, MoreThanABatchAreAllServed) {
    std::vector<std::unique_ptr<event_fd>> all;
    int calls = 0;
    for (int i = 0; i < 35; ++i) {
        all.push_back(std::make_unique<event_fd>([&](event_fd& self, unsigned) {
            self.clear();
            if (++calls == 35) {
                uloop_end();
            }
        }));
        all.back()->raise();
        uloop_fd_add(all.back().get(), ULOOP_READ);
    }
    run();
    EXPECT_EQ(calls, 35);
}

TEST_F(UloopFd, TimersRunBetweenTheCallbacksOfABatch) {
    std::string order;
    timer between([&](timer&) { order += 't'; });
    std::vector<std::unique_ptr<event_fd>> both;
    for (int i = 0; i < 2; ++i) {
        both.push_back(std::make_unique<event_fd>([&](event_fd& self, unsigned) {
            order += 'd';
            self.clear();
            if (order.size() == 1) {
                between.time = {0, 0};
                uloop_timeout_add(&between);
            } else {
                uloop_end();
            }
        }));
        both.back()->raise();
        uloop_fd_add(both.back().get(), ULOOP_READ);
    }
    run();
    EXPECT_EQ(order, "dtd");
}

using UloopRun = uloop_test;

TEST_F(UloopRun, ForgetsAnEarlierCancelFirst) {
    bool fired = false;
    timer end([&](timer&) {
        fired = true;
        uloop_end();
    });
    uloop_timeout_set(&end, 0);
    uloop_cancelled = true;
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_TRUE(fired);
}

TEST_F(UloopRun, EndsWhenTheFlagIsSetDirectly) {
    timer end([](timer&) { uloop_cancelled = true; });
    uloop_timeout_set(&end, 0);
    EXPECT_EQ(uloop_run(), 0);
}

TEST_F(UloopRun, EndsAfterTheCallbackThatCancels) {
    int calls = 0;
    std::vector<std::unique_ptr<event_fd>> both;
    for (int i = 0; i < 2; ++i) {
        both.push_back(std::make_unique<event_fd>([&](event_fd&, unsigned) {
            ++calls;
            uloop_end();
        }));
        both.back()->raise();
        uloop_fd_add(both.back().get(), ULOOP_READ);
    }
    run();
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopRun, CancellingIsTrueOnlyInsideARunThatWillEnd) {
    timer end([](timer&) {
        EXPECT_FALSE(uloop_cancelling());
        uloop_end();
        EXPECT_TRUE(uloop_cancelling());
    });
    EXPECT_FALSE(uloop_cancelling());
    uloop_timeout_set(&end, 0);
    run();
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_FALSE(uloop_cancelling());
}

TEST_F(UloopRun, WithATimeOfZeroServesWhatIsThere) {
    int calls = 0;
    event_fd ready([&](event_fd& self, unsigned) {
        ++calls;
        self.clear();
    });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    EXPECT_EQ(uloop_run_timeout(0), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(uloop_run_timeout(0), 0);
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopRun, WithATimeEndsAfterOneRound) {
    std::string order;
    timer soon([&](timer&) { order += 't'; });
    event_fd ready([&](event_fd&, unsigned) { order += 'd'; });
    ready.raise();
    uloop_fd_add(&ready, ULOOP_READ);
    uloop_timeout_set(&soon, 0);
    EXPECT_EQ(uloop_run_timeout(20000), 0);
    EXPECT_EQ(order, "td");
    EXPECT_EQ(uloop_run_timeout(20000), 0);
    EXPECT_EQ(order, "tdd");
}

TEST_F(UloopRun, WithATimeWaitsNoLongerThanForTheNextTimerAndLeavesItToTheNextRound) {
    bool fired = false;
    timer soon([&](timer&) { fired = true; });
    uloop_timeout_set(&soon, 100);
    EXPECT_EQ(uloop_run_timeout(20000), 0);
    EXPECT_FALSE(fired);
    while (!fired) {
        EXPECT_EQ(uloop_run_timeout(1), 0);
    }
}

TEST_F(UloopRun, WithATimeEndsAfterIt) {
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(uloop_run_timeout(30), 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto elapsed =
        (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000;
    EXPECT_GE(elapsed, 29);
    EXPECT_FALSE(uloop_cancelled);
}

TEST_F(UloopRun, NestedRunServesTheRestOfTheBatch) {
    std::string order;
    std::vector<std::unique_ptr<event_fd>> both;
    for (int i = 0; i < 2; ++i) {
        both.push_back(std::make_unique<event_fd>([&](event_fd& self, unsigned) {
            self.clear();
            order += '(';
            if (order.size() == 1) {
                uloop_run_timeout(0);
            }
            order += ')';
            if (order.size() == 4) {
                uloop_end();
            }
        }));
        both.back()->raise();
        uloop_fd_add(both.back().get(), ULOOP_READ);
    }
    run();
    EXPECT_EQ(order, "(())");
}

TEST_F(UloopRun, OuterGoesOnAfterANestedOneWhoseTimeIsOver) {
    bool went_on = false;
    timer nested([](timer&) { uloop_run_timeout(1); });
    timer end([&](timer&) {
        went_on = true;
        uloop_end();
    });
    uloop_timeout_set(&nested, 0);
    uloop_timeout_set(&end, 30);
    run();
    EXPECT_TRUE(went_on);
}

TEST_F(UloopRun, CancelInANestedOneEndsBoth) {
    timer end([](timer&) { uloop_end(); });
    timer nested([&](timer&) {
        uloop_timeout_set(&end, 0);
        uloop_run();
        EXPECT_TRUE(uloop_cancelling());
    });
    uloop_timeout_set(&nested, 0);
    EXPECT_EQ(uloop_run(), 0);
}

using UloopInit = uloop_test;

TEST_F(UloopInit, AgainWhileRunningKeepsDescriptorsAndTimers) {
    std::string order;
    event_fd ready([&](event_fd&, unsigned) {
        order += 'd';
        uloop_end();
    });
    timer again([&](timer&) {
        order += 't';
        EXPECT_EQ(uloop_init(), 0);
        ready.raise();
    });
    uloop_fd_add(&ready, ULOOP_READ);
    uloop_timeout_set(&again, 0);
    run();
    EXPECT_EQ(order, "td");
}

TEST_F(UloopInit, DoneTwiceIsFine) {
    uloop_done();
    uloop_done();
    EXPECT_EQ(uloop_init(), 0);
}

int lowest_free_descriptor() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

TEST_F(UloopInit, DoneLeavesNoDescriptorBehind) {
    uloop_done();
    const int before = lowest_free_descriptor();
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_NE(lowest_free_descriptor(), before);
    uloop_done();
    EXPECT_EQ(lowest_free_descriptor(), before);
}

TEST_F(UloopInit, WithoutDescriptorsFailsAndLeavesTheSignalsAlone) {
    uloop_done();
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const int before = lowest_free_descriptor();
    for (const int spare : {0, 1}) {
        rlimit tight = old;
        tight.rlim_cur = static_cast<rlim_t>(before + spare);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        EXPECT_EQ(uloop_init(), -1);
        EXPECT_EQ(errno, EMFILE);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
        EXPECT_EQ(lowest_free_descriptor(), before);
        struct sigaction now {};
        sigaction(SIGINT, nullptr, &now);
        EXPECT_EQ(now.sa_handler, SIG_DFL);
    }
    EXPECT_EQ(uloop_init(), 0);
}

} // namespace
