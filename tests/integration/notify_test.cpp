/// Notifications of this process's objects, to subscribers on plain libubus.
#include "integration/peers.h"

#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;
using ::testing::ElementsAre;

class Notify : public peers_test {
protected:
    struct answers {
        bool reported = false;
        std::vector<bus::notify_answer> each;
        std::error_code code;
    };
    std::shared_ptr<answers> ask(const std::string& name, const std::string& method,
                                 const bus::table& data, seconds time) {
        auto seen = std::make_shared<answers>();
        events().notify(
            name, method, data, time,
            [seen](const std::vector<bus::notify_answer>& each, const std::error_code& code) {
                *seen = {true, each, code};
            });
        return seen;
    }
    answers asked(const std::string& name, const std::string& method, const bus::table& data,
                  seconds time = seconds(0)) {
        const auto seen = ask(name, method, data, time);
        run_until([&] { return seen->reported; });
        return *seen;
    }
    std::error_code notified(const std::string& name, const std::string& method,
                             const bus::table& data) {
        outcome done;
        events().notify(name, method, data, done.handler());
        run_until([&] { return done.reported(); });
        return done.code();
    }
};

TEST_F(Notify, SubscribersGetWhatIsSent) {
    connect();
    publish("source", {});
    bus_peer one;
    bus_peer other;
    one.tell("subscribe source", "subscribed 0");
    other.tell("subscribe source", "subscribed 0");
    EXPECT_FALSE(notified("source", "changed", {{"n", 7}}));
    EXPECT_EQ(one.wait_for("notification"), "notification changed 7");
    EXPECT_EQ(other.wait_for("notification"), "notification changed 7");
}

TEST_F(Notify, EverySubscribersAnswersAreReported) {
    connect();
    publish("source", {});
    bus_peer one;
    bus_peer other;
    one.tell("subscribe source", "subscribed 0");
    other.tell("subscribe source", "subscribed 0");
    other.tell("status 6", "status");
    const answers seen = asked("source", "may", {{"n", 7}});
    EXPECT_FALSE(seen.code);
    ASSERT_EQ(seen.each.size(), 2U);
    const bool first = !seen.each[0].status;
    const bus::notify_answer& agreed = seen.each[first ? 0 : 1];
    const bus::notify_answer& refused = seen.each[first ? 1 : 0];
    EXPECT_FALSE(agreed.status);
    ASSERT_EQ(agreed.replies.size(), 1U);
    EXPECT_EQ(number(agreed.replies.front().get<bus::table>()), 8);
    EXPECT_EQ(refused.status, msg::permission_denied);
    EXPECT_TRUE(refused.replies.empty());
}

TEST_F(Notify, AnObjectWithoutSubscribersIsDoneAtOnce) {
    connect();
    publish("source", {});
    const answers seen = asked("source", "may", {});
    EXPECT_FALSE(seen.code);
    EXPECT_TRUE(seen.each.empty());
    EXPECT_FALSE(notified("source", "changed", {}));
}

TEST_F(Notify, TheLimitEndsItWithTheAnswersSoFar) {
    connect();
    publish("source", {});
    bus_peer one;
    bus_peer stopped;
    one.tell("subscribe source", "subscribed 0");
    stopped.tell("subscribe source", "subscribed 0");
    stopped.hold();
    const auto seen = ask("source", "may", {{"n", 1}}, seconds(2));
    one.wait_for("notification");
    run_until([&] { return events().stats().bytes_received != 0; }); // the reply of the one
    on_loop_thread([] {}); // it is counted just before it is taken
    loop()->advance(seconds(2));
    run_until([&] { return seen->reported; });
    EXPECT_EQ(seen->code, msg::timeout);
    ASSERT_EQ(seen->each.size(), 1U);
    EXPECT_EQ(seen->each[0].replies.size(), 1U);
    stopped.go_on();
    stopped.wait_for("notification");
    EXPECT_FALSE(asked("source", "may", {{"n", 2}}).code); // the late answer has done no harm
}

TEST_F(Notify, WhatCannotBeSentIsReported) {
    EXPECT_EQ(notified("none", "changed", {}), msg::connection_failed);
    connect();
    EXPECT_EQ(notified("none", "changed", {}), msg::not_found);
    EXPECT_EQ(asked("none", "changed", {}).code, msg::not_found);
    publish("source", {});
    EXPECT_EQ(notified("source", "changed", {{"value", blob::attr()}}), msg::parse_error);
    EXPECT_EQ(notified("source", std::string("a\0b", 3), {}), msg::invalid_argument);
    EXPECT_EQ(asked("source", "changed", {{"text", std::string(1048576, 'x')}}).code,
              msg::invalid_argument);
    EXPECT_FALSE(notified("source", "changed", {}));
}

TEST_F(Notify, TheEndOfTheConnectionEndsIt) {
    connect();
    publish("source", {});
    bus_peer peer;
    peer.tell("subscribe source", "subscribed 0");
    peer.hold();
    const auto seen = ask("source", "may", {}, seconds(0));
    settle();
    daemon_.kill9();
    run_until([&] { return seen->reported; });
    EXPECT_EQ(seen->code, msg::connection_failed);
    peer.go_on();
}

TEST_F(Notify, CancelEndsItAndItsLinkSilencesIt) {
    connect();
    publish("source", {});
    bus_peer peer;
    peer.tell("subscribe source", "subscribed 0");
    peer.hold();
    const auto silent = std::make_shared<answers>();
    utils::link link =
        events().notify("source", "may", {}, seconds(0),
                        [silent](const auto&, const std::error_code&) { silent->reported = true; });
    const auto seen = ask("source", "may", {}, seconds(9));
    settle();
    EXPECT_TRUE(link.active());
    link.release();
    EXPECT_FALSE(link.active());
    bus().cancel();
    EXPECT_EQ(seen->code, error::generic::aborted);
    EXPECT_FALSE(silent->reported);
    peer.go_on();
}

TEST_F(Notify, TheFirstSubscriberThatComesAndTheLastThatGoesAreReported) {
    std::vector<bool> seen;
    const utils::scoped_link watching =
        events().on_subscribers("source", [&](bool any) { seen.push_back(any); });
    connect();
    publish("source", {});
    bus_peer one;
    bus_peer other;
    one.tell("subscribe source", "subscribed 0");
    run_until([&] { return seen.size() == 1; });
    other.tell("subscribe source", "subscribed 0");
    one.tell("unsubscribe", "unsubscribed 0");
    EXPECT_FALSE(notified("source", "changed", {}));
    EXPECT_EQ(seen.size(), 1U);
    other.kill();
    run_until([&] { return seen.size() == 2; });
    EXPECT_THAT(seen, ElementsAre(true, false));
}

TEST_F(Notify, SubscribersAreGoneWithTheObjectAndWithTheConnection) {
    std::vector<bool> seen;
    connect();
    publish("source", {});
    bus_peer peer;
    peer.tell("subscribe source", "subscribed 0");
    run_until([&] {
        bool now = false;
        const utils::scoped_link watching =
            events().on_subscribers("source", [&](bool any) { now = any; });
        settle();
        return now;
    });
    const utils::scoped_link watching =
        events().on_subscribers("source", [&](bool any) { seen.push_back(any); });
    run_until([&] { return seen.size() == 1; }); // those that are there already
    outcome removed;
    bus().del_object("source", true, removed.handler());
    run_until([&] { return seen.size() == 2; });
    publish("source", {});
    peer.tell("subscribe source", "subscribed 0");
    run_until([&] { return seen.size() == 3; });
    outcome ended;
    bus().disconnect(ended.handler());
    run_until([&] { return seen.size() == 4; });
    EXPECT_THAT(seen, ElementsAre(true, false, true, false));
}

} // namespace
} // namespace tarn::test
