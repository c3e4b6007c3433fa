/// Events between this process and one on plain libubus, through restarts of the bus.
#include "integration/peers.h"

#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using error::msg;
using ::testing::ElementsAre;

class Events : public peers_test {
protected:
    /// Records every event as its id and its number.
    bus::event_handler recorder() {
        return [this](const std::string& id, const bus::table& data) {
            heard_.push_back(id + " " + std::to_string(number(data)));
        };
    }
    void wait_for_events(std::size_t count) {
        run_hurried_until([&] { return heard_.size() >= count; });
    }
    void send(const std::string& id, const bus::table& data, const std::error_code& expected) {
        outcome sent;
        events().send_event(id, data, sent.handler());
        run_until([&] { return sent.reported(); });
        EXPECT_EQ(sent.code(), expected) << id;
    }

    /// Until the private thread has passed on so many events in all, while this loop does not turn.
    /// The daemon confirms an event that is still on its way to the listeners.
    static void wait_until_received(std::uint64_t count) {
        while (events().stats().events_received < count) {
            on_loop_thread([] {});
        }
        on_loop_thread([] {}); // it is counted just before it is passed on
    }

    std::vector<std::string> heard_;
};

TEST_F(Events, AListenerHearsWhatAForeignProcessSends) {
    connect();
    const utils::scoped_link listening = events().listen("weather", recorder(), reporting());
    wait_until_registered();
    EXPECT_FALSE(registered_.code());
    bus_peer peer;
    EXPECT_EQ(peer.tell("send weather 5", "sent"), "sent 0");
    peer.tell("send other 6", "sent");
    peer.tell("send weather 7", "sent");
    wait_for_events(2);
    EXPECT_THAT(heard_, ElementsAre("weather 5", "weather 7"));
}

TEST_F(Events, AForeignProcessHearsWhatThisOneSends) {
    connect();
    bus_peer peer;
    peer.tell("listen alarm.*", "listening 0");
    send("alarm.fire", {{"n", 3}}, msg::success);
    EXPECT_EQ(peer.wait_for("event"), "event alarm.fire 3");
}

TEST_F(Events, ListenersOfManyPatternsShareOneReceiverAndEachHearsAnEventOnce) {
    connect();
    std::vector<utils::scoped_link> listening;
    for (const char* pattern : {"a.*", "a.b*", "a.b.c", "*", "a.*"}) {
        listening.emplace_back(events().listen(pattern, recorder(), reporting()));
    }
    wait_until_registered(5);
    bus_peer peer;
    peer.tell("send a.b.c 1", "sent");
    wait_for_events(5);
    heard_.clear();
    peer.tell("send a.x 2", "sent");
    wait_for_events(3);
    settle();
    EXPECT_EQ(heard_.size(), 3U); // a.* twice, and *
}

TEST_F(Events, AListenerOfAWhileAgoHearsNothingMore) {
    connect();
    utils::link first = events().listen("tick", recorder(), reporting());
    const utils::scoped_link second = events().listen("*", recorder(), reporting());
    wait_until_registered(2);
    first.release();
    EXPECT_FALSE(first.active());
    bus_peer peer;
    peer.tell("send tick 1", "sent");
    wait_for_events(1);
    settle();
    EXPECT_THAT(heard_, ElementsAre("tick 1"));
}

TEST_F(Events, TheReceiverGoesWithTheLastListenerAndComesBackWithTheNext) {
    connect();
    for (int round = 0; round < 3; ++round) {
        utils::scoped_link listening = events().listen("tick", recorder(), reporting());
        wait_until_registered(static_cast<std::size_t>(round) + 1);
        bus_peer peer;
        peer.tell("send tick " + std::to_string(round), "sent");
        wait_for_events(static_cast<std::size_t>(round) + 1);
    }
    EXPECT_THAT(heard_, ElementsAre("tick 0", "tick 1", "tick 2"));
}

TEST_F(Events, AListenerThatIsAddedWithoutAConnectionHearsFromTheNextOneOn) {
    const utils::scoped_link listening = events().listen("tick", recorder(), reporting());
    connect();
    // Whoever hears of the connection can rely on it: nothing is waited for here.
    bus_peer peer;
    peer.tell("send tick 9", "sent");
    wait_for_events(1);
    EXPECT_THAT(heard_, ElementsAre("tick 9"));
    EXPECT_EQ(registered_.count(), 1U);
}

TEST_F(Events, ListenersAreRestoredThroughFiftyRestartsOfTheBus) {
    const utils::scoped_link listening = events().listen("tick.*", recorder(), reporting());
    stay_connected();
    bus_peer peer;
    for (int round = 0; round < 50; ++round) {
        ASSERT_NO_FATAL_FAILURE(restart_bus());
        peer.reconnect();
        const std::string n = std::to_string(round);
        peer.tell("send tick." + n + " " + n, "sent 0");
        wait_for_events(static_cast<std::size_t>(round) + 1);
        ASSERT_EQ(heard_.back(), "tick." + n + " " + n);
    }
    EXPECT_EQ(registered_.count(), 51U);
}

TEST_F(Events, AProcessDoesNotHearItsOwnEventsButThoseOfTheDaemon) {
    connect();
    const utils::scoped_link listening = events().listen("*", recorder(), reporting());
    wait_until_registered();
    send("mine", {{"n", 1}}, msg::success);
    publish("self", {});
    wait_for_events(1);
    EXPECT_THAT(heard_, ElementsAre("ubus.object.add -1"));
}

TEST_F(Events, WhatTheBusRefusesIsReported) {
    connect();
    send("ubus.object.add", {}, msg::permission_denied);
    send(std::string("nul\0inside", 10), {}, msg::invalid_argument);
    send("unset", {{"value", blob::attr()}}, msg::parse_error);
    send("large", {{"text", std::string(1048576, 'x')}}, msg::invalid_argument);
    const utils::scoped_link none = events().listen("", recorder(), reporting());
    wait_until_registered();
    EXPECT_EQ(registered_.code(), msg::permission_denied);
    outcome too_long;
    bus::options how;
    how.on_registered = too_long.handler();
    const utils::scoped_link second = events().listen(std::string(1048576, 'x'), recorder(), how);
    run_until([&] { return too_long.reported(); });
    EXPECT_EQ(too_long.code(), msg::invalid_argument);
    send("still", {}, msg::success); // the connection has survived all that
}

TEST_F(Events, SendingWithoutAConnectionFails) {
    send("tick", {}, msg::connection_failed);
}

TEST_F(Events, TheOldestAreDroppedForAHandlerThatIsBehindAndCounted) {
    connect();
    std::uint64_t dropped = 0;
    bus::options how = reporting();
    how.most_undelivered = 10;
    how.on_dropped = [&](std::uint64_t count) {
        dropped += count;
        heard_.push_back("dropped");
    };
    const utils::scoped_link listening = events().listen("tick", recorder(), how);
    wait_until_registered();
    bus_peer peer;
    peer.tell("burst tick 100", "burst sent"); // while this loop does not turn
    wait_until_received(100);
    wait_for_events(11);
    EXPECT_EQ(dropped, 90U);
    ASSERT_EQ(heard_.size(), 11U);
    EXPECT_EQ(heard_.front(), "dropped");
    EXPECT_EQ(heard_[1], "tick 90");
    EXPECT_EQ(heard_.back(), "tick 99");
    const stats counts = events().stats();
    EXPECT_EQ(counts.dropped, 90U);
    EXPECT_EQ(counts.delivered, 10U);
    EXPECT_EQ(counts.events_received, 100U);
    EXPECT_EQ(counts.undelivered.highest, 10U);
    EXPECT_EQ(counts.undelivered.now, 0U);
}

TEST_F(Events, CancelDropsWhatIsUndeliveredAndTheListenerLivesOn) {
    connect();
    const utils::scoped_link listening = events().listen("tick", recorder(), reporting());
    wait_until_registered();
    bus_peer peer;
    peer.tell("send tick 1", "sent");
    wait_until_received(1);
    bus().cancel();
    EXPECT_TRUE(heard_.empty());
    connect();
    peer.tell("send tick 2", "sent");
    wait_for_events(1);
    EXPECT_THAT(heard_, ElementsAre("tick 2"));
}

TEST_F(Events, AHandlerThatThrowsCostsNoOtherEvent) {
    connect();
    const utils::scoped_link listening = events().listen(
        "tick",
        [&](const std::string&, const bus::table& data) {
            heard_.push_back(std::to_string(number(data)));
            if (heard_.size() == 2) {
                throw std::runtime_error("of the application");
            }
        },
        reporting());
    wait_until_registered();
    bus_peer peer;
    peer.tell("burst tick 5", "burst sent");
    wait_until_received(5);
    EXPECT_THROW(loop()->run_until([&] { return heard_.size() == 5; }, limit), std::runtime_error);
    wait_for_events(5);
    EXPECT_THAT(heard_, ElementsAre("0", "1", "2", "3", "4"));
}

TEST_F(Events, AHandlerMayReleaseItsOwnLinkAndStartAnother) {
    connect();
    utils::link first;
    utils::link second;
    first = events().listen(
        "tick",
        [&](const std::string&, const bus::table&) {
            first.release();
            second = events().listen("tock", recorder());
            heard_.push_back("first");
        },
        reporting());
    wait_until_registered();
    bus_peer peer;
    peer.tell("burst tick 3", "burst sent");
    wait_for_events(1);
    settle();
    peer.tell("send tock 4", "sent");
    wait_for_events(2);
    EXPECT_THAT(heard_, ElementsAre("first", "tock 4"));
    second.release();
}

TEST_F(Events, ReleasingALinkDestroysItsHandlers) {
    const auto watched = std::make_shared<int>(0);
    bus::options how;
    how.on_dropped = [watched](std::uint64_t) {
    };
    how.on_registered = [watched](const std::error_code&) {
    };
    utils::link listening = events().listen(
        "*", [watched](const std::string&, const bus::table&) {}, how);
    how = {};
    EXPECT_EQ(watched.use_count(), 4);
    listening.release();
    EXPECT_EQ(watched.use_count(), 1);
}

TEST_F(Events, ThoseThatArriveDuringOtherRequestsKeepTheirOrder) {
    connect();
    bus_peer peer;
    constexpr int count = 2000;
    int next = 0;
    bool in_order = true;
    const utils::scoped_link listening = events().listen(
        "counted",
        [&](const std::string&, const bus::table& data) {
            in_order = in_order && number(data) == next;
            ++next;
        },
        reporting());
    wait_until_registered();
    peer.write("burst counted " + std::to_string(count));
    int looking = 0;
    run_hurried_until([&] {
        while (looking < 4) { // the private thread is always inside a request
            ++looking;
            events().objects("*", [&](const auto&, const auto&) { --looking; });
        }
        return next >= count;
    });
    run_until([&] { return looking == 0; });
    EXPECT_TRUE(in_order);
}

} // namespace
} // namespace tarn::test
