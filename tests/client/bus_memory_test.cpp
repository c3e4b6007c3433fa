/// Memory that runs out in an operation of tarn::bus, at every single allocation in turn: on the
/// application's thread it throws and has not begun, on the loop thread it is reported or counted.
#include "client/client_fixture.h"
#include "client/failing_in_turn.h"

#include "support/child_process.h"
#include "tarn/bus.h"
#include "tarn/error.h"

#include <array>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

class BusMemory : public client_on_bus_test {
protected:
    void SetUp() override { publish(); }

    static void publish() {
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        ASSERT_FALSE(connected.code()) << connected.code().message();
        outcome added;
        bus().add_object("own", {}, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code());
    }
    static tarn::bus& events() { return bus().get_bus(); }

    static bool is_lost() { return bus().get_state() == client::state::disconnected; }
};

TEST_F(BusMemory, AListenerThatCannotBeMadeThrowsAndLeavesNothingBehind) {
    const auto watched = std::make_shared<int>(0);
    const bus::event_handler handler = [watched](const std::string&, const bus::table&) {
    };
    utils::scoped_link started;
    const auto failed = fail_each_here(
        [&] { started = events().listen("a pattern longer than a short text", handler); });
    EXPECT_GT(failed, 1U);
    started.release();
    settle();
    EXPECT_EQ(watched.use_count(), 2);
}

TEST_F(BusMemory, ASubscriptionThatCannotBeMadeThrowsAndLeavesNothingBehind) {
    const auto watched = std::make_shared<int>(0);
    const bus::subscription_handler handler = [watched](bus::subscription, const std::error_code&) {
    };
    utils::scoped_link started;
    const auto failed = fail_each_here(
        [&] { started = events().subscribe("a path longer than a short text", {}, handler); });
    EXPECT_GT(failed, 1U);
    started.release();
    settle();
    EXPECT_EQ(watched.use_count(), 2);
}

TEST_F(BusMemory, AWaitThatCannotBeMadeThrowsAndItsHandlerIsNotCalled) {
    outcome done;
    const auto handler = done.handler();
    const std::vector<std::string> paths{"a path longer than a short text", "own"};
    utils::scoped_link started;
    const auto failed =
        fail_each_here([&] { started = events().wait_for(paths, seconds(3), handler); });
    EXPECT_GT(failed, 1U);
    EXPECT_TRUE(started.active());
    settle();
    EXPECT_FALSE(done.reported());
}

TEST_F(BusMemory, ANotificationThatCannotBeMadeThrowsAndItsHandlerIsNotCalled) {
    outcome done;
    const auto handler = done.handler();
    const bus::table data{{"text", std::string(3000, 'x')}};
    std::size_t begun = 0;
    const auto failed = fail_each_here([&] {
        events().notify("own", "a method longer than a short text", data, handler);
        ++begun;
    });
    EXPECT_GT(failed, 1U);
    run_until([&] { return done.count() == begun; });
    settle();
    EXPECT_EQ(done.count(), 1U);
    EXPECT_FALSE(done.code());
}

TEST_F(BusMemory, ALookUpReportsThatMemoryRanOutOnTheLoopThread) {
    const auto failed = fail_each_on_loop_thread([&] {
        bool reported = false;
        events().objects(
            "*", [&](const std::vector<bus::object_info>& found, const std::error_code& code) {
                reported = true;
                EXPECT_TRUE(code ? code == msg::no_memory && found.empty() : found.size() == 1)
                    << code.message();
            });
        run_until([&] { return reported; });
    });
    EXPECT_GT(failed, 1U);
}

TEST_F(BusMemory, AnEventIsSentOrReportedWhenMemoryRunsOutOnTheLoopThread) {
    const auto failed = fail_each_on_loop_thread([&] {
        outcome sent;
        events().send_event("an event longer than a short text", {{"text", std::string(300, 'x')}},
                            sent.handler());
        run_until([&] { return sent.reported(); });
        EXPECT_TRUE(!sent.code() || sent.code() == msg::no_memory ||
                    sent.code() == msg::parse_error)
            << sent.code().message();
    });
    EXPECT_GT(failed, 1U);
}

TEST_F(BusMemory, ANotificationIsSentAndCountedOrReportedWhenMemoryRunsOutOnTheLoopThread) {
    std::size_t sent = 0;
    std::uint64_t bytes = 0;
    const auto failed = fail_each_on_loop_thread([&] {
        bool reported = false;
        bytes = events().stats().bytes_sent;
        events().notify("own", "a method longer than a short text",
                        {{"text", std::string(300, 'x')}}, seconds(0),
                        [&](const auto&, const std::error_code& code) {
                            reported = true;
                            EXPECT_TRUE(!code || code == msg::no_memory || code == msg::parse_error)
                                << code.message();
                            sent += code ? 0U : 1U;
                        });
        run_until([&] { return reported; });
        EXPECT_EQ(events().stats().notifications_sent, sent);
        bytes = events().stats().bytes_sent - bytes; // of the last, which nothing failed in
    });
    EXPECT_EQ(events().stats().bytes_sent, sent * bytes);
    EXPECT_GT(failed, 1U);
}

TEST_F(BusMemory, AListenerSurvivesEventsForWhichMemoryRanOut) {
    std::size_t heard = 0;
    bool heard_one_more = false;
    std::uint64_t missed = 0;
    bus::options how;
    how.on_dropped = [&](std::uint64_t count) {
        missed += count;
    };
    const auto on_event = [&](const std::string&, const bus::table& about) {
        ++heard;
        heard_one_more |= about.find("path")->second.get<std::string>() == "one more";
    };
    const utils::scoped_link listening = events().listen("ubus.object.add", on_event, how);
    settle();
    std::size_t expected = 0;
    const auto failed = fail_each_on_loop_thread([&] {
        outcome added;
        bus().add_object("an object longer than a short text", {}, added.handler());
        run_until([&] { return added.reported(); });
        if (!added.code()) {
            ++expected;
            outcome removed;
            bus().del_object("an object longer than a short text", true, removed.handler());
            run_until([&] { return removed.reported(); });
        }
        EXPECT_EQ(bus().get_state(), client::state::connected);
    });
    EXPECT_GT(failed, 1U);
    settle();
    EXPECT_LE(heard, expected);
    // libubus itself may lose one that it has no memory to queue; not the listener with it.
    // Events that came during a request may still be on their way.
    bus().add_object("one more", {}, {});
    run_until([&] { return heard_one_more; });
}

/// Operations that stay, with another process that publishes, notifies and answers.
class StandingMemory : public BusMemory {
protected:
    void SetUp() override {
        BusMemory::SetUp();
        peer_.wait_for_line("connected");
        tell("publish " + remote, "published 0");
        tell("subscribe own", "subscribed 0");
    }

    void tell(const std::string& command, const std::string& answer) {
        peer_.write_line(command);
        peer_.wait_for_line(answer);
    }

    /// Until `condition` holds, or the connection is lost: libubus ends it when it has no memory to
    /// read. Whether it holds.
    static bool run_unless_lost(const std::function<bool()>& condition) {
        run_until([&] { return condition() || is_lost(); });
        return condition();
    }

    /// The client on a connection, with its object and the subscriber of that.
    void recover() {
        if (is_lost()) {
            publish();
            tell("unsubscribe", "unsubscribed");
            tell("subscribe own", "subscribed 0");
        }
    }

    /// As fail_each_on_loop_thread(), each time on a connection.
    template <class Operation>
    std::size_t fail_each(const Operation& operation) {
        return fail_each_on_loop_thread([&] {
            operation();
            recover();
        });
    }

    static bus::options reporting(outcome& registered) {
        bus::options how;
        how.on_registered = registered.handler();
        return how;
    }

    /// Waits for the one report of a registration, with a new connection if need be.
    void await_registration(const outcome& registered) {
        if (!run_unless_lost([&] { return registered.reported(); })) {
            recover();
            run_until([&] { return registered.reported(); });
        }
        settle();
        if (!is_lost()) {
            EXPECT_EQ(registered.count(), 1U);
        }
        EXPECT_TRUE(!registered.code() || registered.code() == msg::no_memory)
            << registered.code().message();
    }

    /// What has failed before leaves nothing behind.
    void expect_works() {
        recover();
        bool heard = false;
        bus::notification_handler handler;
        outcome registered;
        const utils::scoped_link listening = events().listen(
            "still", [&](const auto&, const auto&) { heard = true; }, reporting(registered));
        run_until([&] { return registered.reported(); });
        EXPECT_FALSE(registered.code());
        tell("send still 1", "sent 0");
        run_until([&] { return heard; });
    }

    // Longer than a std::string holds in itself.
    const std::string remote = "a.remote.object.with.a.long.path";
    const std::string other = "another.object.with.a.long.path";
    child_process peer_{{TARN_TEST_BUS_PEER}, child_process::input::pipe};
};

TEST_F(StandingMemory, AListenerIsRegisteredOrToldWhyNot) {
    const auto failed = fail_each([&] {
        outcome registered;
        const utils::scoped_link listening = events().listen(
            "an event longer than a short text", [](const auto&, const auto&) {},
            reporting(registered));
        await_registration(registered);
    });
    EXPECT_GT(failed, 1U);
    expect_works();
}

TEST_F(StandingMemory, AWatchOfObjectsIsRegisteredOrToldWhyNot) {
    const auto failed = fail_each([&] {
        outcome registered;
        std::size_t appeared = 0;
        const utils::scoped_link watching = events().on_object(
            remote,
            [&](bus::presence now, const auto&, auto) {
                appeared += now == bus::presence::appeared ? 1U : 0U;
            },
            reporting(registered));
        await_registration(registered);
        if (!registered.code() && !is_lost()) {
            EXPECT_EQ(appeared, 1U);
        }
    });
    EXPECT_GT(failed, 1U);
    expect_works();
}

TEST_F(StandingMemory, ASubscriptionIsMadeOrToldWhyNot) {
    const auto failed = fail_each([&] {
        outcome registered;
        bus::subscribe_options how;
        how.on_registered = registered.handler();
        std::size_t changes = 0;
        const utils::scoped_link subscribed = events().subscribe(
            remote, [](const auto&, const auto&) { return std::error_code(); },
            [&](bus::subscription now, const std::error_code& code) {
                ++changes;
                EXPECT_TRUE(now == bus::subscription::subscribed ||
                            (now == bus::subscription::lost && code == msg::connection_failed) ||
                            (now == bus::subscription::refused && code == msg::no_memory))
                    << code.message();
            },
            how);
        await_registration(registered);
        if (run_unless_lost([&] { return changes != 0; })) {
            settle();
            EXPECT_TRUE(changes == 1 || is_lost());
        }
    });
    EXPECT_GT(failed, 1U);
    expect_works();
}

TEST_F(StandingMemory, AWaitEndsWhicheverAllocationFails) {
    const auto failed = fail_each([&] {
        outcome done;
        events().wait_for({remote, "own"}, seconds(0), done.handler());
        if (!run_unless_lost([&] { return done.reported(); })) {
            recover();
            run_until([&] { return done.reported(); });
        }
        settle();
        EXPECT_EQ(done.count(), 1U);
        EXPECT_TRUE(!done.code() || done.code() == msg::no_memory) << done.code().message();
    });
    EXPECT_GT(failed, 1U);
    expect_works();
}

TEST_F(StandingMemory, SubscribersAreToldWhicheverAllocationFails) {
    const auto failed = fail_each([&] {
        std::size_t told = 0;
        const utils::scoped_link following =
            events().on_subscribers("own", [&](bool some) { told += some ? 1U : 0U; });
        run_until([&] { return told != 0; });
        settle();
        EXPECT_EQ(told, 1U);
    });
    EXPECT_GE(failed, 1U);
    expect_works();
}

TEST_F(StandingMemory, AMonitorIsRegisteredOrToldWhyNot) {
    const auto failed = fail_each([&] {
        outcome registered;
        const utils::scoped_link monitoring =
            events().monitor([](const auto&) {}, reporting(registered));
        await_registration(registered);
    });
    EXPECT_GE(failed, 1U);
    expect_works();
}

TEST_F(StandingMemory, AConnectionRestoresEverythingOrTellsWhatItCouldNot) {
    std::array<std::size_t, 4> told{};
    const auto count = [&](std::size_t number) {
        bus::options how;
        how.on_registered = [&told, number](const std::error_code& code) {
            ++told.at(number);
            EXPECT_TRUE(!code || code == msg::no_memory) << code.message();
        };
        return how;
    };
    std::size_t heard = 0;
    int present = 0;
    bool is_subscribed = false;
    bool has_subscribers = false;
    const utils::scoped_link listening = events().listen(
        "an event longer than a short text", [&](const auto&, const auto&) { ++heard; }, count(0));
    const utils::scoped_link watching = events().on_object(
        remote,
        [&](bus::presence now, const auto&, auto) {
            present += now == bus::presence::appeared ? 1 : -1;
        },
        count(1));
    bus::subscribe_options how;
    how.on_registered = count(2).on_registered;
    const utils::scoped_link subscription = events().subscribe(
        remote, [](const auto&, const auto&) { return std::error_code(); },
        [&](bus::subscription now, const std::error_code&) {
            is_subscribed = now == bus::subscription::subscribed;
        },
        how);
    const utils::scoped_link monitoring = events().monitor([](const auto&) {}, count(3));
    const utils::scoped_link following =
        events().on_subscribers("own", [&](bool some) { has_subscribers = some; });
    outcome waited;
    utils::scoped_link waiting;
    settle();
    const auto failed = fail_each_on_loop_thread([&] {
        bus().disconnect({});
        run_until_state(client::state::disconnected);
        settle();
        EXPECT_EQ(present, 0);
        EXPECT_FALSE(is_subscribed);
        told = {};
        if (waited.reported()) {
            EXPECT_EQ(waited.code(), msg::no_memory);
            EXPECT_EQ(waited.count(), 1U);
            waited = outcome();
        }
        if (!waiting.active()) {
            waiting = events().wait_for({other}, seconds(0), waited.handler());
        }
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        settle();
        for (const std::size_t times : told) {
            EXPECT_TRUE(times == 1 || (times == 0 && is_lost())) << times;
        }
    });
    EXPECT_GT(failed, 10U);
    bus().disconnect({});
    run_until_state(client::state::disconnected);
    recover();
    if (!waiting.active()) {
        waited = outcome();
        waiting = events().wait_for({other}, seconds(0), waited.handler());
    }
    run_until([&] { return present == 1 && is_subscribed && has_subscribers; });
    tell("publish " + other, "published 0");
    run_until([&] { return waited.reported(); });
    EXPECT_EQ(waited.count(), 1U);
    expect_works();
}

TEST_F(StandingMemory, AnObjectThatAppearsAndGoesIsReportedWhicheverAllocationFails) {
    std::size_t appeared = 0;
    std::size_t gone = 0;
    bool confirmed = false;
    const utils::scoped_link watching =
        events().on_object(other, [&](bus::presence now, const auto&, auto) {
            ++(now == bus::presence::appeared ? appeared : gone);
        });
    const utils::scoped_link subscribed =
        events().subscribe(other, {}, [&](bus::subscription now, const std::error_code& code) {
            confirmed = now == bus::subscription::subscribed || code == msg::no_memory;
        });
    settle();
    const auto failed = fail_each([&] {
        settle();
        appeared = 0;
        gone = 0;
        confirmed = false;
        tell("publish " + other, "published 0");
        run_unless_lost([&] { return appeared != 0 && confirmed; });
        tell("withdraw " + other, "withdrawn 0");
        run_until([&] { return gone != 0; });
        settle();
        EXPECT_EQ(appeared, 1U);
        EXPECT_EQ(gone, 1U);
    });
    EXPECT_GT(failed, 10U);
    expect_works();
}

TEST_F(StandingMemory, AWaitEndsWithTheEventOfItsObjectWhicheverAllocationFails) {
    outcome done;
    const auto failed = fail_each([&] {
        if (done.reported()) {
            done = outcome();
        }
        const utils::scoped_link waiting =
            events().wait_for({other, remote}, seconds(0), done.handler());
        settle();
        tell("publish " + other, "published 0");
        if (!run_unless_lost([&] { return done.reported(); })) {
            recover();
            run_until([&] { return done.reported(); });
        }
        EXPECT_EQ(done.count(), 1U);
        tell("withdraw " + other, "withdrawn 0");
    });
    EXPECT_GT(failed, 8U);
    expect_works();
}

TEST_F(StandingMemory, TheAnswersOfSubscribersAreWholeWhicheverAllocationFails) {
    const auto failed = fail_each([&] {
        std::size_t reported = 0;
        events().notify("own", "a method longer than a short text", {{"n", 7}}, seconds(0),
                        [&](const auto& answers, const std::error_code& code) {
                            ++reported;
                            EXPECT_TRUE(!code || code == msg::no_memory ||
                                        code == msg::parse_error || code == msg::connection_failed)
                                << code.message();
                            if (code) {
                                EXPECT_TRUE(answers.empty());
                                return;
                            }
                            ASSERT_EQ(answers.size(), 1U);
                            EXPECT_FALSE(answers[0].status);
                            ASSERT_EQ(answers[0].replies.size(), 1U);
                            EXPECT_EQ(answers[0].replies.front().template get<blob::table>().size(),
                                      1U);
                        });
        run_until([&] { return reported != 0; });
        settle();
        EXPECT_EQ(reported, 1U);
    });
    EXPECT_GT(failed, 5U);
    expect_works();
}

TEST_F(StandingMemory, AChangeForWhichNotEvenTheReserveIsEnoughIsCounted) {
    bool subscribed = false;
    const utils::scoped_link subscription = events().subscribe(
        remote, {}, [&](bus::subscription, const std::error_code&) { subscribed = true; });
    run_until([&] { return subscribed; });
    std::unique_ptr<failing_allocation> failure;
    on_loop_thread([&] { failure = std::make_unique<failing_allocation>(1, 2); });
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    run_until([&] { return disconnected.reported(); });
    on_loop_thread([&] { failure.reset(); });
    EXPECT_EQ(events().stats().dropped, 1U);
    expect_works();
}

TEST_F(StandingMemory, ANotificationForWhoseHandlerMemoryRanOutIsAnswered) {
    bool subscribed = false;
    const utils::scoped_link subscription = events().subscribe(
        remote, [](const auto&, const auto&) { return std::error_code(); },
        [&](bus::subscription, const std::error_code&) { subscribed = true; });
    run_until([&] { return subscribed; });
    settle();
    for (std::size_t nth = 1;; ++nth) {
        peer_.write_line("ask " + remote + " may 7");
        ASSERT_TRUE(loop()->wait_for_task(limit));
        outcome behind;
        bus().connect(behind.handler()); // in the same batch
        const auto before = events().stats();
        {
            const failing_allocation failure(nth);
            EXPECT_NO_THROW(loop()->drain());
        }
        const auto after = events().stats();
        const bool dropped = after.dropped != before.dropped;
        EXPECT_EQ(behind.count(), 1U);
        EXPECT_EQ(after.delivered - before.delivered, dropped ? 0U : 1U);
        EXPECT_EQ(peer_.wait_for_line("answer"), dropped ? "answer 9" : "answer 0");
        peer_.wait_for_line("asked");
        settle();
        if (!dropped || HasFailure()) {
            EXPECT_GE(report(nth - 1), 1U);
            return;
        }
    }
}

TEST_F(StandingMemory, TellingTheAnswersOfSubscribersNeedsNone) {
    std::size_t reported = 0;
    std::size_t answered = 0;
    std::error_code told;
    const bus::answers_handler handler = [&](const auto& answers, const std::error_code& code) {
        ++reported;
        answered = answers.size();
        told = code;
    };
    settle();
    events().notify("own", "may", {{"n", 7}}, seconds(0), handler);
    ASSERT_TRUE(loop()->wait_for_task(limit));
    {
        const failing_allocation failure(1);
        EXPECT_NO_THROW(loop()->drain());
    }
    EXPECT_EQ(reported, 1U);
    EXPECT_EQ(answered, 1U);
    EXPECT_FALSE(told);

    child_process silent{{TARN_TEST_BUS_PEER}, child_process::input::pipe};
    silent.wait_for_line("connected");
    silent.write_line("subscribe own");
    silent.wait_for_line("subscribed 0");
    silent.pause();
    const auto before = events().stats().bytes_received;
    events().notify("own", "may", {{"n", 7}}, seconds(5), handler);
    while (events().stats().bytes_received == before) {
        std::this_thread::yield(); // until the other one has answered
    }
    on_loop_thread([] {});
    {
        const failing_allocation failure(1);
        EXPECT_NO_THROW(loop()->advance(seconds(5)));
    }
    EXPECT_EQ(reported, 2U);
    EXPECT_EQ(answered, 1U);
    EXPECT_EQ(told, msg::timeout);
    silent.resume();
}

} // namespace
} // namespace tarn::test
