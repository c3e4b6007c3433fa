/// Operations asked for in the middle of others: inside handlers, and on another thread while a
/// handler runs.
#include "client/client_fixture.h"

#include "support/held_loop_thread.h"
#include "tarn/bus.h"
#include "tarn/error.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

namespace tarn::test {
namespace {

using error::generic;
using error::msg;
using state = client::state;
using std::chrono::seconds;
using ::testing::ElementsAre;

class Overtaking : public client_on_bus_test {
protected:
    static client::method_map echo() {
        return {
            {"echo",
             {[](const std::shared_ptr<client::exchange_ctx>& ctx) { ctx->send(ctx->args, {}); },
              {}}}};
    }
    static std::error_code add(const std::string& name) {
        outcome added;
        bus().add_object(name, echo(), added.handler());
        run_until([&] { return added.reported(); });
        return added.code();
    }
    static std::error_code call(const std::string& name) {
        call_outcome called;
        bus().invoke(name, "echo", {}, called.handler(), seconds(0));
        run_until([&] { return called.reported(); });
        return called.code();
    }
    /// Whether everything works once more, from a new connection to the end of it.
    void expect_a_working_client() {
        ASSERT_NO_FATAL_FAILURE(connect());
        EXPECT_FALSE(add("again"));
        EXPECT_FALSE(call("again"));
        outcome disconnected;
        bus().disconnect(disconnected.handler());
        run_until([&] { return disconnected.reported(); });
        EXPECT_FALSE(disconnected.code());
        EXPECT_EQ(bus().get_state(), state::disconnected);
    }
    /// Does `work` on another thread, and waits until it is done.
    template <class Work>
    static void elsewhere(const Work& work) {
        std::thread(work).join();
    }
};

TEST_F(Overtaking, AHandlerOfCancelMayCancelAndConnect) {
    connect();
    ASSERT_FALSE(add("own"));
    outcome connected;
    call_outcome last;
    bus().invoke(
        "own", "echo", {},
        [&](const std::list<blob::attr>&, const std::error_code& code) {
            EXPECT_EQ(code, generic::aborted);
            bus().cancel();
            EXPECT_EQ(last.code(), generic::aborted) << "the inner one ends everything";
            bus().connect(connected.handler());
            EXPECT_EQ(bus().get_state(), state::connecting);
        },
        seconds(0));
    bus().invoke("own", "echo", {}, last.handler(), seconds(0));
    bus().cancel();
    EXPECT_EQ(last.count(), 1U);
    EXPECT_EQ(bus().get_state(), state::connecting) << "the outer one leaves the new one alone";
    run_until([&] { return connected.reported(); });
    EXPECT_FALSE(connected.code());
    EXPECT_EQ(bus().get_state(), state::connected);
    EXPECT_FALSE(add("own"));
    EXPECT_FALSE(call("own"));
}

TEST_F(Overtaking, WhatIsRequestedAfterACancellationIsReportedOnTheLoop) {
    const std::string refused("a\0b", 3); // reported at once, with the next drain
    std::promise<void> requested;
    std::promise<void> reporting;
    std::thread::id reported_on;
    std::thread elsewhere;
    const auto first = [&](const std::error_code&) {
        reporting.set_value();
        elsewhere.join();
    };
    const auto second = [&](const std::error_code&) {
        reported_on = std::this_thread::get_id();
    };
    bus().add_object(refused, {}, [&](const std::error_code&) {
        bus().cancel(); // ends what the outer one has begun
        bus().add_object(refused, {}, first);
        bus().add_object(refused, {}, second);
        requested.set_value();
        reporting.get_future().wait();
    });
    elsewhere = std::thread([] { bus().cancel(); });
    requested.get_future().wait();
    run_until([&] { return reported_on != std::thread::id(); });
    EXPECT_EQ(reported_on, std::this_thread::get_id());
}

TEST_F(Overtaking, EveryHandlerThatCancelCallsMayCancelAndConnect) {
    for (int chosen = 0; chosen < 6; ++chosen) {
        ASSERT_NO_FATAL_FAILURE(connect());
        outcome again;
        int number = 0;
        const auto meddle = [&, chosen](int n) {
            if (n == chosen) {
                bus().cancel();
                bus().connect(again.handler());
            }
            ++number;
        };
        const auto completion = [meddle](int n) {
            return [meddle, n](const std::error_code&) {
                meddle(n);
            };
        };
        bus().invoke(
            "nobody", "echo", {},
            [&](const std::list<blob::attr>&, const std::error_code&) { meddle(0); }, seconds(0));
        bus().add_object("own", echo(), completion(1));
        bus().del_object("own", true, completion(2));
        bus().connect(completion(3));
        bus().disconnect(completion(4));
        bus().connect(completion(5));
        bus().cancel();
        EXPECT_EQ(number, 6) << "each once, by whichever of the two, when " << chosen << " cancels";
        EXPECT_EQ(bus().get_state(), state::connecting) << chosen;
        run_until([&] { return again.reported(); });
        EXPECT_FALSE(again.code());
        outcome disconnected;
        bus().disconnect(disconnected.handler());
        run_until([&] { return disconnected.reported(); });
    }
}

TEST_F(Overtaking, ADisconnectOnAnotherThreadWhileAConnectHandlerRunsIsDone) {
    outcome disconnected;
    bus().connect([&](const std::error_code& code) {
        EXPECT_FALSE(code);
        elsewhere([&] { bus().disconnect(disconnected.handler()); });
    });
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(disconnected.code()) << "its own outcome, not that of the connection";
    EXPECT_EQ(bus().get_state(), state::disconnected);
    EXPECT_EQ(disconnected.count(), 1U);
    expect_a_working_client();
}

TEST_F(Overtaking, AConnectOnAnotherThreadWhileADisconnectHandlerRunsIsDone) {
    connect();
    outcome connected;
    bus().disconnect([&](const std::error_code& code) {
        EXPECT_FALSE(code);
        elsewhere([&] { bus().connect(connected.handler()); });
    });
    run_until([&] { return connected.reported(); });
    EXPECT_FALSE(connected.code()) << "its own outcome, not that of the disconnection";
    EXPECT_EQ(bus().get_state(), state::connected);
    EXPECT_EQ(connected.count(), 1U);
}

TEST_F(Overtaking, WhatOtherThreadsAskForWhileCancelRunsIsEndedByItOrDoneAfterIt) {
    connect();
    outcome early;
    outcome late;
    outcome nothing;
    call_outcome called;
    bus().invoke(
        "nobody", "echo", {},
        [&](const std::list<blob::attr>&, const std::error_code&) {
            elsewhere([&] { bus().connect(early.handler()); });
        },
        seconds(0));
    bus().disconnect({});
    bus().connect([&](const std::error_code&) {
        elsewhere([&] {
            bus().disconnect(nothing.handler());
            bus().connect(late.handler());
        });
    });
    bus().cancel();
    EXPECT_EQ(early.code(), generic::aborted);
    run_until([&] { return late.reported(); });
    EXPECT_FALSE(late.code());
    EXPECT_EQ(nothing.count(), 1U);
    EXPECT_FALSE(nothing.code());
    EXPECT_EQ(bus().get_state(), state::connected);
}

TEST_F(Overtaking, ACancelOnAnotherThreadInTheMiddleOfOneEndsWhatWasAskedForBeforeIt) {
    connect();
    outcome connected;
    bus().invoke(
        "nobody", "echo", {},
        [&](const std::list<blob::attr>&, const std::error_code&) {
            elsewhere([&] {
                bus().connect(connected.handler());
                bus().cancel();
                EXPECT_EQ(connected.code(), generic::aborted);
            });
        },
        seconds(0));
    bus().cancel();
    loop()->drain();
    EXPECT_EQ(connected.count(), 1U);
    EXPECT_EQ(bus().get_state(), state::disconnected);
    expect_a_working_client();
}

TEST_F(Overtaking, OfTwoCancellationsTheOlderOneEndsNothingThatTheNewerOneFoundTooLate) {
    connect();
    std::promise<void> newer_has_ended_what_it_found;
    std::promise<void> newer_may_go_on;
    std::thread newer;
    std::atomic<std::thread::id> newer_id{};
    const auto finish_newer = [&] {
        if (newer.joinable()) {
            newer_may_go_on.set_value();
            newer.join();
        }
    };
    outcome last;
    int first = 0;
    const utils::scoped_link subscribed = bus().notify_on_state_change([&](client::state s) {
        if (s == state::disconnected && std::this_thread::get_id() == newer_id) {
            newer_has_ended_what_it_found.set_value();
            newer_may_go_on.get_future().wait();
        }
    });
    bus().invoke(
        "nobody", "echo", {},
        [&](const std::list<blob::attr>&, const std::error_code&) {
            newer = std::thread([&] {
                newer_id = std::this_thread::get_id();
                bus().cancel();
            });
            newer_has_ended_what_it_found.get_future().wait();
            elsewhere([&] {
                bus().disconnect([&](const std::error_code&) {
                    ++first;
                    if (std::this_thread::get_id() != newer_id) {
                        finish_newer(); // and with it the cancellation
                    }
                });
                bus().disconnect(last.handler());
            });
        },
        seconds(0));
    bus().cancel();
    outcome after;
    bus().connect(after.handler());
    EXPECT_EQ(bus().get_state(), state::disconnected) << "the newer one is under way";
    finish_newer();
    EXPECT_EQ(after.code(), generic::aborted) << "in time to be ended by it";
    EXPECT_EQ(first, 1);
    EXPECT_EQ(last.count(), 1U);
    EXPECT_FALSE(last.code());
    expect_a_working_client();
}

TEST_F(Overtaking, OfWhatOtherThreadsAskForWhileCancelRunsTheLastCounts) {
    outcome connected;
    outcome disconnected;
    bus().connect([&](const std::error_code&) {
        elsewhere([&] {
            bus().connect(connected.handler());
            bus().disconnect(disconnected.handler());
        });
    });
    bus().cancel();
    EXPECT_EQ(connected.code(), generic::aborted);
    EXPECT_EQ(disconnected.count(), 1U);
    EXPECT_FALSE(disconnected.code());
    EXPECT_EQ(bus().get_state(), state::disconnected);
    expect_a_working_client();
}

TEST_F(Overtaking, AutomaticReconnectionThatAHandlerOfCancelTurnsOnBegins) {
    utils::scoped_link on;
    connect();
    bus().invoke(
        "nobody", "echo", {},
        [&](const std::list<blob::attr>&, const std::error_code&) {
            on = bus().auto_connect([](long long) { return seconds(1); });
        },
        seconds(0));
    bus().cancel();
    EXPECT_TRUE(on.active());
    loop()->advance(seconds(1)); // in case that the end of cancel() counted as a failure
    run_until_state(state::connected);
}

TEST_F(Overtaking, AutomaticReconnectionThatAHandlerOfCancelTurnsOnBeginsWithoutAConnectionToo) {
    utils::scoped_link on;
    bool told = false;
    bus().disconnect([&](const std::error_code&) {
        told = true;
        on = bus().auto_connect([](long long) { return seconds(1); });
    });
    bus().cancel();
    EXPECT_TRUE(told);
    EXPECT_TRUE(on.active());
    run_until_state(state::connected);
}

TEST_F(Overtaking, WhatABusHandlerBeginsAnewWheneverItIsAbortedDoesNotHoldCancelUp) {
    connect();
    ASSERT_FALSE(add("own"));
    constexpr int too_many = 1000;
    int looked_up = 0;
    int waited = 0;
    int notified = 0;
    bool again = true;
    const std::function<void()> look_up = [&] {
        bus().get_bus().objects("*", [&](const auto&, const std::error_code& code) {
            EXPECT_EQ(code, generic::aborted);
            if (again && ++looked_up < too_many) {
                look_up();
            }
        });
    };
    const std::function<void()> wait = [&] {
        bus().get_bus().wait_for({"nobody"}, seconds(0), [&](const std::error_code& code) {
            EXPECT_EQ(code, generic::aborted);
            if (again && ++waited < too_many) {
                wait();
            }
        });
    };
    const std::function<void()> notify = [&] {
        bus().get_bus().notify("own", "news", {}, [&](const std::error_code& code) {
            EXPECT_EQ(code, generic::aborted);
            if (again && ++notified < too_many) {
                notify();
            }
        });
    };
    {
        const held_loop_thread held; // none of them can be done
        look_up();
        wait();
        notify();
        bus().cancel();
    }
    again = false;
    // Ended, then refused; what is refused after that is reported on the loop.
    EXPECT_EQ(looked_up, 2);
    EXPECT_EQ(waited, 2);
    EXPECT_EQ(notified, 2);
    loop()->drain();
    expect_a_working_client();
}

TEST_F(Overtaking, AHandlerThatThrowsOutOfAnOverdueCancellationDropsNothingOfTheNextLife) {
    connect();
    std::promise<void> inside;
    std::promise<void> may_throw;
    bus().connect([&](const std::error_code&) { // connected already: known at once, and queued
        inside.set_value();
        may_throw.get_future().wait();
        throw std::runtime_error("thrown");
    });
    std::thread older([] { EXPECT_THROW(bus().cancel(), std::runtime_error); });
    inside.get_future().wait();
    bus().cancel();
    ASSERT_NO_FATAL_FAILURE(connect());
    outcome second;
    outcome third;
    bus().connect([&](const std::error_code&) {
        may_throw.set_value();
        older.join();
    });
    bus().connect(second.handler());
    bus().connect(third.handler());
    loop()->drain();
    if (older.joinable()) {
        may_throw.set_value();
        older.join();
    }
    EXPECT_EQ(second.count(), 1U);
    EXPECT_EQ(third.count(), 1U);
    expect_a_working_client();
}

TEST_F(Overtaking, AConnectHandlerOfAnAttemptThatIsToEndMayAskForTheNext) {
    outcome connected;
    outcome disconnected;
    std::error_code first;
    bus().connect([&](const std::error_code& code) {
        first = code;
        bus().connect(connected.handler());
    });
    bus().disconnect(disconnected.handler());
    run_until([&] { return connected.reported(); });
    EXPECT_FALSE(first);
    EXPECT_FALSE(disconnected.code());
    EXPECT_FALSE(connected.code());
    EXPECT_EQ(bus().get_state(), state::connected);
}

TEST_F(Overtaking, ADisconnectHandlerMayEndTheAttemptThatFollows) {
    connect();
    outcome connected;
    outcome disconnected;
    bus().disconnect([&](const std::error_code& code) {
        EXPECT_FALSE(code);
        bus().disconnect(disconnected.handler());
    });
    bus().connect(connected.handler());
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(connected.code());
    EXPECT_FALSE(disconnected.code());
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(Overtaking, ADisconnectOnAnotherThreadWhileTheSubscribersHearOfAConnectionIsDone) {
    outcome disconnected;
    utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::connected) {
            elsewhere([&] { bus().disconnect(disconnected.handler()); });
        }
    });
    outcome connected;
    bus().connect(connected.handler());
    run_until([&] { return connected.reported() && disconnected.reported(); });
    run_until_state(state::disconnected);
    link.release();
    expect_a_working_client();
}

TEST_F(Overtaking, AConnectHandlerOfAnAttemptThatIsToEndMayConnectAndDisconnect) {
    outcome first;
    outcome connected;
    outcome disconnected;
    bus().connect([&](const std::error_code&) {
        bus().connect(connected.handler());
        bus().disconnect(disconnected.handler());
    });
    bus().disconnect(first.handler());
    run_until([&] { return first.reported() && connected.reported() && disconnected.reported(); });
    run_until_state(state::disconnected);
    expect_a_working_client();
}

TEST_F(Overtaking, ADisconnectHandlerMayConnectAndDisconnect) {
    connect();
    outcome connected;
    outcome disconnected;
    bus().disconnect([&](const std::error_code&) {
        bus().connect(connected.handler());
        bus().disconnect(disconnected.handler());
    });
    run_until([&] { return connected.reported() && disconnected.reported(); });
    run_until_state(state::disconnected);
    expect_a_working_client();
}

TEST_F(Overtaking, AConnectHandlerThatThrowsTakesThoseBehindItWithIt) {
    bus().connect([](const std::error_code&) { throw std::runtime_error("a connect's"); });
    outcome second;
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = captured;
    const utils::link link = bus().connect(
        [captured, told = second.handler()](const std::error_code& code) { told(code); });
    captured.reset();
    EXPECT_THROW(run_until([&] { return second.reported(); }), std::runtime_error);
    EXPECT_EQ(bus().get_state(), state::connected);
    EXPECT_FALSE(link.active());
    EXPECT_TRUE(watched.expired()) << "although the link lives on";
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(second.reported()) << "of a later outcome, which is not its own";
    expect_a_working_client();
}

TEST_F(Overtaking, ASubscriberThatThrowsHoldsBackNoOutcome) {
    bool thrown = false;
    const utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::connected && !thrown) {
            thrown = true;
            throw std::runtime_error("a subscriber's");
        }
    });
    outcome connected;
    bus().connect(connected.handler());
    EXPECT_THROW(run_until([&] { return connected.reported(); }), std::runtime_error);
    EXPECT_EQ(connected.count(), 1U);
    EXPECT_FALSE(connected.code());
}

TEST_F(Overtaking, SubscribersHearOfAChangeThatTheyMakeInsideTheirOwnCall) {
    std::vector<std::string> heard;
    const utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        heard.push_back("begin " + std::to_string(static_cast<int>(s)));
        if (s == state::connecting) {
            bus().disconnect({});
        }
        heard.push_back("end " + std::to_string(static_cast<int>(s)));
    });
    bus().connect({});
    EXPECT_THAT(heard, ElementsAre("begin 1", "begin 3", "end 3", "end 1"));
}

TEST_F(Overtaking, ChangesOfTwoThreadsAtOnceAreHeardOfInTheirOrder) {
    std::vector<state> heard;
    utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::connecting) {
            elsewhere([] { bus().disconnect({}); }); // returns, although subscribers are busy
        }
        heard.push_back(s);
    });
    bus().connect({});
    run_until_state(state::disconnected);
    EXPECT_THAT(heard, ElementsAre(state::connecting, state::disconnecting, state::disconnected));
    link.release();
}

// --- what becomes of names when a connection ends ---

TEST_F(Overtaking, TheNamesOfObjectsAreFreeWhenTheHandlersOfTheDisconnectionHaveRun) {
    connect();
    ASSERT_FALSE(add("own"));
    outcome in_subscriber;
    outcome in_handler;
    utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::disconnected) {
            bus().add_object("own", echo(), in_subscriber.handler());
        }
    });
    bool told = false;
    bus().disconnect([&](const std::error_code&) {
        bus().add_object("own", echo(), in_handler.handler());
        told = true;
    });
    run_until([&] { return told && in_subscriber.reported() && in_handler.reported(); });
    EXPECT_EQ(in_subscriber.code(), msg::invalid_argument);
    EXPECT_EQ(in_handler.code(), msg::invalid_argument);
    link.release();
    EXPECT_EQ(add("own"), msg::connection_failed) << "free, but there is no connection";
    ASSERT_NO_FATAL_FAILURE(connect());
    EXPECT_FALSE(add("own"));
    EXPECT_FALSE(call("own"));
}

TEST_F(Overtaking, ACallThatIsOnItsWayToItsHandlerIsNotServedAfterACancel) {
    connect();
    int served = 0;
    outcome added;
    bus().add_object(
        "own", {{"count", {[&](const std::shared_ptr<client::exchange_ctx>&) { ++served; }, {}}}},
        added.handler());
    run_until([&] { return added.reported(); });
    loop()->drain();
    bus().invoke("own", "count", {}, {}, seconds(0));
    ASSERT_TRUE(loop()->wait_for_task(limit)) << "the call has arrived";
    bus().cancel();
    loop()->drain();
    EXPECT_EQ(served, 0);
    expect_a_working_client();
}

TEST_F(Overtaking, AfterACancelTheNamesOfObjectsAreFreeFromTheNextConnectedOn) {
    connect();
    ASSERT_FALSE(add("own"));
    outcome at_once;
    outcome when_connected;
    utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::connected) {
            bus().add_object("own", echo(), when_connected.handler());
        }
    });
    {
        const held_loop_thread held; // the end of the connection cannot be known yet
        bus().cancel();
        bus().connect({});
        bus().add_object("own", echo(), at_once.handler());
    }
    run_until([&] { return at_once.reported() && when_connected.reported(); });
    EXPECT_EQ(at_once.code(), msg::invalid_argument);
    EXPECT_FALSE(when_connected.code());
    EXPECT_FALSE(call("own"));
    link.release();
}

TEST_F(Overtaking, ALossFreesTheNamesBeforeTheNextConnectedToo) {
    std::vector<std::error_code> added;
    utils::scoped_link states = bus().notify_on_state_change([&](state s) {
        if (s == state::connected) {
            bus().add_object("own", echo(),
                             [&](const std::error_code& code) { added.push_back(code); });
        }
    });
    utils::scoped_link on = bus().auto_connect([](long long) { return seconds(1); });
    run_until([&] { return added.size() == 1; });
    daemon_.restart();
    run_until([&] { return !loop()->armed_timers().empty(); });
    loop()->advance(seconds(1));
    run_until([&] { return added.size() == 2; });
    EXPECT_THAT(added, ::testing::Each(std::error_code(msg::success)));
    EXPECT_FALSE(call("own"));
    states.release();
}

// --- the application's loop is asked for what is due ---

TEST_F(Overtaking, AReportOnAnEmptyQueueAlwaysRequestsADrain) {
    bus().cancel();
    const auto posts = loop()->post_count();
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    EXPECT_EQ(loop()->post_count(), posts + 1) << "although cancel() has asked for one as well";
    loop()->drain();
    EXPECT_TRUE(disconnected.reported());
}

} // namespace
} // namespace tarn::test
