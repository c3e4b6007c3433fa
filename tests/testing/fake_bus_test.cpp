/// The fake bus: what a test's events, objects, notifications and refusals make of the code under
/// test, and what it can see of that code.
#include "tarn/testing/fake_client.h"

#include "tarn/error.h"
#include "tarn/testing/manual_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tarn::bus;
using tarn::client;
using tarn::error::generic;
using tarn::error::msg;
using tarn::testing::fake_bus;
using tarn::testing::fake_client;
using tarn::testing::manual_loop;
using tarn::testing::outcome;
using operation = tarn::testing::fake_bus::operation;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using strings = std::vector<std::string>;

class FakeBus : public ::testing::Test {
protected:
    void connect() {
        peer.connect({});
        loop->drain();
        ASSERT_TRUE(peer.is_active());
    }

    void lose() {
        peer.lose_connection();
        loop->drain();
    }

    void publish(const std::string& name) {
        peer.add_object(name, {}, {});
        loop->drain();
    }

    client::completion_handler note_code() {
        return [this](const std::error_code& code) {
            codes.push_back(code);
        };
    }

    /// Notes each event as "id n".
    bus::event_handler note_event() {
        return [this](const std::string& id, const bus::table& data) {
            const auto n = data.find("n");
            seen.push_back(n != data.end() ? id + ' ' + std::to_string(n->second.get<int>()) : id);
        };
    }

    bus::presence_handler note_presence() {
        return [this](bus::presence what, const std::string& path, std::uint32_t) {
            seen.push_back((what == bus::presence::appeared ? "+" : "-") + path);
        };
    }

    bus::subscription_handler note_change() {
        return [this](bus::subscription what, const std::error_code& reason) {
            seen.push_back((what == bus::subscription::subscribed ? "subscribed: "
                            : what == bus::subscription::lost     ? "lost: "
                                                                  : "refused: ") +
                           reason.message());
        };
    }

    bus::notification_handler note_notification(std::optional<std::error_code> answer) {
        return [this, answer](const std::string& method,
                              const std::shared_ptr<client::exchange_ctx>& context) {
            seen.push_back(method);
            contexts.push_back(context);
            return answer;
        };
    }

    bus::options registered() {
        bus::options how;
        how.on_registered = note_code();
        return how;
    }

    const std::shared_ptr<manual_loop> loop = std::make_shared<manual_loop>();
    fake_client peer{loop};
    fake_bus& rest = peer.get_bus();
    strings seen;
    std::vector<std::error_code> codes;
    std::vector<std::shared_ptr<client::exchange_ctx>> contexts;
};

// --- events ---

TEST_F(FakeBus, AnEventReachesTheListenersOfItsPatternOnTheLoop) {
    connect();
    rest.listen("network.*", note_event());
    rest.listen("network.interface", note_event());
    rest.listen("hotplug", note_event());
    EXPECT_THAT(rest.listening(), ElementsAre("network.*", "network.interface", "hotplug"));
    rest.emit("network.interface", {{"n", 1}});
    EXPECT_THAT(seen, IsEmpty());
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("network.interface 1", "network.interface 1"));
}

TEST_F(FakeBus, AnEventWithoutAConnectionIsLost) {
    rest.listen("*", note_event());
    rest.emit("early");
    connect();
    rest.emit("now");
    lose();
    rest.emit("late");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("now"));
}

TEST_F(FakeBus, AListenerIsRegisteredWithEveryConnectionBeforeItsStateIsReported) {
    rest.listen("*", note_event(), registered());
    peer.notify_on_state_change([&](client::state now) {
        if (now == client::state::connected) {
            rest.emit("from the subscriber");
        }
    });
    connect();
    lose();
    connect();
    EXPECT_THAT(codes, ElementsAre(msg::success, msg::success));
    EXPECT_THAT(seen, ElementsAre("from the subscriber", "from the subscriber"));
}

TEST_F(FakeBus, ARefusedListenerGetsNothingUntilTheNextConnection) {
    rest.refuse(operation::listen, msg::permission_denied);
    rest.listen("*", note_event(), registered());
    connect();
    rest.emit("ignored");
    rest.refuse(operation::listen, {});
    lose();
    connect();
    rest.emit("delivered");
    loop->drain();
    EXPECT_THAT(codes, ElementsAre(msg::permission_denied, msg::success));
    EXPECT_THAT(seen, ElementsAre("delivered"));
}

TEST_F(FakeBus, PatternsThatTheBusDoesNotTakeAreRefused) {
    connect();
    rest.listen("", note_event(), registered());
    rest.listen(std::string("a\0b", 3), note_event(), registered());
    rest.on_object("", note_presence(), registered());
    loop->drain();
    EXPECT_THAT(codes,
                ElementsAre(msg::permission_denied, msg::invalid_argument, msg::invalid_argument));
}

TEST_F(FakeBus, BeyondTheLimitTheOldestEventsAreDroppedAndCounted) {
    connect();
    bus::options how;
    how.most_undelivered = 2;
    how.on_dropped = [&](std::uint64_t count) {
        seen.push_back("dropped " + std::to_string(count));
    };
    rest.listen("e", note_event(), how);
    for (int n = 1; n <= 5; ++n) {
        rest.emit("e", {{"n", n}});
    }
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("dropped 3", "e 4", "e 5"));
}

TEST_F(FakeBus, WhatAThrowingHandlerLeavesIsDeliveredLater) {
    connect();
    bus::options how;
    how.most_undelivered = 1;
    how.on_dropped = [](std::uint64_t) {
        throw std::runtime_error("dropped");
    };
    rest.listen("e", note_event(), how);
    rest.emit("e", {{"n", 1}});
    rest.emit("e", {{"n", 2}});
    EXPECT_THROW(loop->drain(), std::runtime_error);
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("e 2"));
}

TEST_F(FakeBus, AReleasedListenerIsSilentAndItsHandlersAreDestroyed) {
    connect();
    const auto kept = std::make_shared<int>();
    auto link = rest.listen(
        "*", [&, kept](const std::string& id, const bus::table&) { seen.push_back(id); });
    rest.emit("e");
    EXPECT_TRUE(link.active());
    link.release();
    EXPECT_FALSE(link.active());
    EXPECT_EQ(kept.use_count(), 1);
    loop->drain();
    EXPECT_THAT(seen, IsEmpty());
    EXPECT_THAT(rest.listening(), IsEmpty());
}

TEST_F(FakeBus, CancelDropsWhatIsUndeliveredAndKeepsTheListener) {
    connect();
    rest.listen("*", note_event());
    rest.emit("dropped");
    peer.cancel();
    loop->drain();
    connect();
    rest.emit("delivered");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("delivered"));
}

TEST_F(FakeBus, AListenerIsNotifiedOfItsOwnObjects) {
    connect();
    rest.listen("ubus.object.*", [&](const std::string& id, const bus::table& data) {
        seen.push_back(id + ' ' + data.find("path")->second.get<std::string>());
    });
    publish("own");
    peer.del_object("own", true, {});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("ubus.object.add own", "ubus.object.remove own"));
}

TEST_F(FakeBus, AnEventWithoutAnEncodingIsAMistakeOfTheTest) {
    connect();
    EXPECT_THROW(rest.emit("e", {{"nothing", tarn::blob::attr()}}), std::logic_error);
}

TEST_F(FakeBus, SentEventsAreRecordedWithTheirOutcome) {
    rest.send_event("early", {}, note_code());
    connect();
    auto link = rest.send_event("door", {{"open", true}}, note_code());
    EXPECT_TRUE(link.active());
    rest.send_event("door", {{"nothing", tarn::blob::attr()}}, note_code());
    rest.send_event("ubus.object.add", {}, note_code());
    rest.send_event(std::string("a\0b", 3), {}, note_code());
    rest.refuse(operation::send_event, msg::permission_denied);
    rest.send_event("door", {}, note_code());
    rest.send_event("silent", {}, {});
    EXPECT_THAT(codes, ElementsAre(msg::connection_failed));
    loop->drain();
    EXPECT_THAT(codes,
                ElementsAre(msg::connection_failed, msg::success, msg::parse_error,
                            msg::permission_denied, msg::invalid_argument, msg::permission_denied));
    EXPECT_FALSE(link.active());
    ASSERT_EQ(rest.sent_events().size(), 7U);
    EXPECT_EQ(rest.sent_events()[1].id, "door");
    EXPECT_EQ(rest.sent_events()[1].data.count("open"), 1U);
}

// --- objects ---

TEST_F(FakeBus, ALookUpFindsTheObjectsOfOthersAndItsOwn) {
    rest.add_object("net.wan");
    const auto id = rest.add_object("net.lan", {{"status", {{"verbose", bus::field_type::int8}}}});
    connect();
    peer.add_object("own", {{"set", {{}, {{"n", typeid(unsigned int)}}}}}, {});
    std::vector<bus::object_info> all;
    const auto keep = [&](const std::vector<bus::object_info>& found, const std::error_code& code) {
        codes.push_back(code);
        all = found;
    };
    rest.objects("*", keep);
    loop->drain();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].path, "net.lan");
    EXPECT_EQ(all[0].id, id);
    ASSERT_EQ(all[0].methods.size(), 1U);
    EXPECT_EQ(all[0].methods[0].fields[0].name, "verbose");
    EXPECT_EQ(all[2].path, "own");
    EXPECT_EQ(all[2].methods[0].fields[0].type, bus::field_type::int32);
    rest.objects("net.wan", keep);
    loop->drain();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].path, "net.wan");
    rest.objects("nothing*", keep);
    loop->drain();
    EXPECT_THAT(all, IsEmpty());
    EXPECT_THAT(codes, ElementsAre(msg::success, msg::success, msg::success));
    EXPECT_THAT(rest.look_ups(), ElementsAre("*", "net.wan", "nothing*"));
}

TEST_F(FakeBus, ALookUpFailsAsOnTheBus) {
    const auto keep = [&](const std::vector<bus::object_info>&, const std::error_code& code) {
        codes.push_back(code);
    };
    rest.objects("*", keep);
    loop->drain();
    connect();
    rest.objects("", keep);
    rest.refuse(operation::objects, msg::permission_denied);
    rest.objects("*", keep);
    loop->drain();
    EXPECT_THAT(codes,
                ElementsAre(msg::connection_failed, msg::invalid_argument, msg::permission_denied));
}

TEST_F(FakeBus, ANameOfAnotherProcessIsTaken) {
    rest.add_object("shared");
    connect();
    peer.add_object("shared", {}, note_code());
    loop->drain();
    rest.remove_object("shared");
    peer.add_object("shared", {}, note_code());
    loop->drain();
    EXPECT_THAT(codes, ElementsAre(msg::invalid_argument, msg::success));
}

TEST_F(FakeBus, AWaitEndsWhenAllAreThere) {
    rest.wait_for({"a", "b"}, seconds(0), note_code());
    EXPECT_EQ(rest.pending_waits(), 1U);
    rest.add_object("a");
    connect();
    rest.remove_object("a");
    rest.add_object("b");
    loop->drain();
    EXPECT_THAT(codes, IsEmpty()) << "never both at once";
    lose();
    rest.add_object("a");
    loop->drain();
    EXPECT_THAT(codes, IsEmpty()) << "not connected";
    connect();
    EXPECT_THAT(codes, ElementsAre(msg::success));
    EXPECT_EQ(rest.pending_waits(), 0U);
}

TEST_F(FakeBus, AWaitEndsByItsLimitARefusalACancelAndForNothing) {
    rest.wait_for({"a"}, seconds(60), note_code());
    rest.wait_for({}, seconds(0), note_code());
    rest.wait_for({"a*"}, seconds(0), note_code());
    loop->drain();
    EXPECT_THAT(codes, ElementsAre(msg::success, msg::invalid_argument));
    loop->advance(seconds(60));
    EXPECT_EQ(codes.back(), msg::timeout);
    rest.wait_for({"a"}, seconds(0), note_code());
    peer.cancel();
    EXPECT_EQ(codes.back(), generic::aborted);
    rest.refuse(operation::follow, msg::permission_denied);
    rest.wait_for({"a"}, seconds(0), note_code());
    connect();
    EXPECT_EQ(codes.back(), msg::permission_denied);
    EXPECT_EQ(codes.size(), 5U);
    auto link = rest.wait_for({"b"}, seconds(60), note_code());
    link.release();
    loop->advance(seconds(60));
    EXPECT_EQ(codes.size(), 5U);
}

TEST_F(FakeBus, AFollowerIsNotifiedOfThoseThatAreThereThenOfEveryChange) {
    rest.add_object("net.lan");
    rest.add_object("other");
    rest.on_object("net.*", note_presence(), registered());
    connect();
    EXPECT_THAT(seen, ElementsAre("+net.lan"));
    EXPECT_THAT(codes, ElementsAre(msg::success));
    rest.add_object("net.wan");
    rest.remove_object("net.lan");
    rest.add_object("net.wan"); // by another publisher
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("+net.lan", "+net.wan", "-net.lan", "-net.wan", "+net.wan"));
    seen.clear();
    lose();
    EXPECT_THAT(seen, ElementsAre("-net.wan"));
    connect();
    EXPECT_THAT(seen, ElementsAre("-net.wan", "+net.wan"));
    EXPECT_THAT(rest.following(), ElementsAre("net.*"));
}

TEST_F(FakeBus, CancelDropsNoChangesAndEveryObjectIsGoneAfterIt) {
    rest.add_object("known");
    rest.on_object("*", note_presence());
    connect();
    rest.add_object("undelivered");
    peer.cancel();
    EXPECT_THAT(seen, ElementsAre("+known")) << "on the loop only";
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("+known", "+undelivered", "-known", "-undelivered"));
}

TEST_F(FakeBus, AFollowerThatIsRefusedIsNotifiedOfNothing) {
    rest.refuse(operation::follow, msg::permission_denied);
    rest.add_object("a");
    rest.on_object("*", note_presence(), registered());
    connect();
    rest.add_object("b");
    loop->drain();
    EXPECT_THAT(seen, IsEmpty());
    EXPECT_THAT(codes, ElementsAre(msg::permission_denied));
}

// --- subscriptions ---

TEST_F(FakeBus, ASubscriptionFollowsItsObjectAndTheConnection) {
    rest.subscribe("hostapd", note_notification({}), note_change());
    connect();
    EXPECT_THAT(seen, IsEmpty());
    rest.add_object("hostapd");
    loop->drain();
    EXPECT_THAT(rest.subscribed(), ElementsAre("hostapd"));
    rest.remove_object("hostapd");
    loop->drain();
    EXPECT_THAT(rest.subscribed(), IsEmpty());
    rest.add_object("hostapd");
    loop->drain();
    lose();
    connect();
    EXPECT_THAT(seen, ElementsAre("subscribed: Success", "lost: Not found", "subscribed: Success",
                                  "lost: Connection failed", "subscribed: Success"));
}

TEST_F(FakeBus, ANotifierThatWaitsGetsTheAnswerOfTheHandler) {
    rest.add_object("hostapd");
    rest.subscribe("hostapd", note_notification(msg::permission_denied));
    connect();
    const auto served = rest.ask_from("hostapd", "probe", {{"signal", -60}});
    ASSERT_EQ(served.size(), 1U);
    EXPECT_FALSE(served[0]->status) << "not before the loop's turn";
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("probe"));
    EXPECT_EQ(contexts[0]->args.find("signal")->second.get<int>(), -60);
    EXPECT_EQ(served[0]->status, make_error_code(msg::permission_denied));
    EXPECT_TRUE(contexts[0]->expired());
}

TEST_F(FakeBus, AnAnswerMayComeLater) {
    rest.add_object("hostapd");
    rest.subscribe("hostapd", note_notification(std::nullopt));
    connect();
    const auto served = rest.ask_from("hostapd", "probe");
    loop->drain();
    EXPECT_FALSE(served[0]->status);
    EXPECT_FALSE(contexts[0]->expired());
    contexts[0]->send({{"ok", true}}, {});
    contexts[0]->respond(msg::success);
    ASSERT_EQ(served[0]->replies.size(), 1U);
    EXPECT_EQ(served[0]->status, make_error_code(msg::success));
}

TEST_F(FakeBus, ANotifierThatDoesNotWaitIsNotAnswered) {
    rest.add_object("hostapd");
    rest.subscribe("hostapd", note_notification(msg::permission_denied));
    connect();
    rest.notify_from("hostapd", "beacon");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("beacon"));
    EXPECT_TRUE(contexts[0]->expired());
}

TEST_F(FakeBus, ASubscriptionWithoutAnswersAnswersSuccessAtOnce) {
    rest.add_object("hostapd");
    bus::subscribe_options how;
    how.answers = false;
    rest.subscribe("hostapd", note_notification(msg::permission_denied), {}, how);
    rest.subscribe("hostapd", {}, {});
    connect();
    const auto served = rest.ask_from("hostapd", "probe");
    ASSERT_EQ(served.size(), 2U);
    EXPECT_EQ(served[0]->status, make_error_code(msg::success));
    loop->drain();
    EXPECT_TRUE(contexts[0]->expired());
    EXPECT_EQ(served[1]->status, make_error_code(msg::success)) << "without a handler";
}

TEST_F(FakeBus, ADroppedNotificationIsAnsweredWithUnknownError) {
    rest.add_object("hostapd");
    bus::subscribe_options how;
    how.most_undelivered = 1;
    how.on_dropped = [&](std::uint64_t count) {
        seen.push_back("dropped " + std::to_string(count));
    };
    rest.subscribe("hostapd", note_notification(msg::success), note_change(), how);
    connect();
    const auto first = rest.ask_from("hostapd", "first");
    const auto second = rest.ask_from("hostapd", "second");
    EXPECT_EQ(first[0]->status, make_error_code(msg::unknown_error));
    rest.remove_object("hostapd");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("subscribed: Success", "dropped 1", "second", "lost: Not found"))
        << "changes are never dropped";
    EXPECT_EQ(second[0]->status, make_error_code(msg::success));
}

TEST_F(FakeBus, ANotificationThatCancelDropsIsNotAnswered) {
    rest.add_object("hostapd");
    rest.subscribe("hostapd", note_notification(msg::success), note_change());
    connect();
    const auto served = rest.ask_from("hostapd", "probe");
    peer.cancel();
    loop->drain();
    EXPECT_FALSE(served[0]->status);
    EXPECT_THAT(seen, ElementsAre("subscribed: Success", "lost: Connection failed"));
}

TEST_F(FakeBus, ASubscriptionIsRefusedAsOnTheBus) {
    rest.subscribe("bad*", {}, note_change());
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("refused: Invalid argument"));
    seen.clear();
    connect();
    publish("own");
    rest.subscribe("own", {}, note_change());
    rest.refuse(operation::subscribe, msg::permission_denied);
    rest.subscribe("hostapd", {}, note_change());
    rest.add_object("hostapd");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("refused: Invalid argument", "refused: Permission denied"));
    EXPECT_THAT(rest.subscribed(), IsEmpty());
}

TEST_F(FakeBus, WhoMayNotFollowIsSubscribedOnlyToWhatIsThere) {
    rest.refuse(operation::follow, msg::permission_denied);
    rest.add_object("there");
    bus::subscribe_options how;
    how.on_registered = note_code();
    rest.subscribe("there", {}, {}, how);
    rest.subscribe("later", {}, {}, how);
    connect();
    rest.add_object("later");
    EXPECT_THAT(rest.subscribed(), ElementsAre("there"));
    EXPECT_THAT(codes, ElementsAre(msg::permission_denied, msg::permission_denied));
}

// --- the publisher's side ---

TEST_F(FakeBus, SubscribersComeAndGoWithTheirObject) {
    rest.on_subscribers("door",
                        [&](bool some) { seen.emplace_back(some ? "subscribers" : "none"); });
    EXPECT_THAT(rest.following_subscribers(), ElementsAre("door"));
    rest.set_subscribers("door", 2);
    connect();
    EXPECT_THAT(seen, IsEmpty());
    publish("door");
    EXPECT_THAT(seen, ElementsAre("subscribers"));
    rest.set_subscribers("door", 1);
    rest.set_subscribers("door", 0);
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("subscribers", "none"));
    rest.set_subscribers("door", 1);
    lose();
    connect();
    publish("door");
    EXPECT_THAT(seen, ElementsAre("subscribers", "none", "subscribers", "none", "subscribers"));
}

TEST_F(FakeBus, NotificationsAreRecordedWithTheirOutcome) {
    rest.notify("door", "opened", {}, note_code());
    connect();
    rest.notify("door", "opened", {}, note_code());
    loop->drain();
    publish("door");
    rest.notify("door", "opened", {{"by", "wind"}}, note_code());
    rest.notify("door", "opened", {{"nothing", tarn::blob::attr()}}, note_code());
    rest.notify("door", "opened", {}, client::completion_handler());
    loop->drain();
    EXPECT_THAT(
        codes, ElementsAre(msg::connection_failed, msg::not_found, msg::success, msg::parse_error));
    ASSERT_EQ(rest.notifications().size(), 5U);
    EXPECT_EQ(rest.notifications()[2].name, "door");
    EXPECT_EQ(rest.notifications()[2].method, "opened");
    EXPECT_EQ(rest.notifications()[2].data.count("by"), 1U);
    EXPECT_FALSE(rest.notifications()[2].limit);
}

TEST_F(FakeBus, TheAnswersOfSubscribersAreThoseOfTheScript) {
    connect();
    publish("door");
    std::vector<bus::notify_answer> answers;
    const auto keep = [&](const std::vector<bus::notify_answer>& got, const std::error_code& code) {
        codes.push_back(code);
        answers = got;
    };
    rest.set_subscribers("door", 2);
    rest.notify("door", "may-open", {}, seconds(5), keep);
    loop->drain();
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_FALSE(answers[0].status);
    rest.answer_notification(
        "door", "may-open",
        {outcome::reply({{"ok", 1}}), outcome::failure(msg::permission_denied)});
    rest.notify("door", "may-open", {}, seconds(5), keep);
    loop->drain();
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].replies.front().get<bus::table>().count("ok"), 1U);
    EXPECT_EQ(answers[1].status, msg::permission_denied);
    outcome without_status = outcome::reply({{"ok", 1}});
    without_status.never = true;
    rest.answer_notification("door", "may-open",
                             {outcome::reply({}), outcome::no_answer(), without_status});
    rest.notify("door", "may-open", {}, seconds(5), keep);
    loop->drain();
    EXPECT_EQ(codes.size(), 2U);
    loop->advance(seconds(5));
    ASSERT_EQ(answers.size(), 2U) << "one that sends nothing is not among them";
    EXPECT_FALSE(answers[0].status);
    EXPECT_EQ(answers[1].replies.size(), 1U);
    EXPECT_EQ(answers[1].status, msg::timeout);
    EXPECT_THAT(codes, ElementsAre(msg::success, msg::success, msg::timeout));
    EXPECT_EQ(rest.notifications().back().limit, seconds(5));
}

TEST_F(FakeBus, AnUnansweredNotificationEndsWithItsConnectionOrACancel) {
    connect();
    publish("door");
    rest.answer_notification("door", "may-open", {outcome::no_answer()});
    const auto keep = [&](const std::vector<bus::notify_answer>& got, const std::error_code& code) {
        codes.push_back(code);
        EXPECT_THAT(got.size(), 0U);
    };
    rest.notify("door", "may-open", {}, seconds(0), keep);
    lose();
    EXPECT_THAT(codes, ElementsAre(msg::connection_failed));
    connect();
    publish("door");
    rest.notify("door", "may-open", {}, seconds(0), keep);
    peer.cancel();
    EXPECT_THAT(codes, ElementsAre(msg::connection_failed, generic::aborted));
    loop->drain();
    EXPECT_EQ(codes.size(), 2U);
}

// --- the monitor, and what is counted ---

TEST_F(FakeBus, AMonitorReceivesWhatPasses) {
    auto link = rest.monitor(
        [&](const bus::message& passed) { seen.emplace_back(bus::name_of(passed.type)); });
    EXPECT_EQ(rest.monitors(), 1U);
    bus::message invoke;
    invoke.type = 5;
    rest.pass(invoke);
    connect();
    rest.pass(invoke);
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("invoke"));
    link.release();
    EXPECT_EQ(rest.monitors(), 0U);
}

TEST_F(FakeBus, ARefusedMonitorReceivesNothing) {
    rest.refuse(operation::monitor, msg::permission_denied);
    rest.monitor([&](const bus::message&) { seen.emplace_back("message"); }, registered());
    connect();
    rest.pass({});
    loop->drain();
    EXPECT_THAT(codes, ElementsAre(msg::permission_denied));
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(FakeBus, StatsAreThoseOfTheTest) {
    tarn::stats counted;
    counted.events_sent = 7;
    rest.set_stats(counted);
    EXPECT_EQ(rest.stats().events_sent, 7U);
}

TEST_F(FakeBus, LinksMayOutliveTheClient) {
    auto short_lived = std::make_unique<fake_client>(loop);
    auto listening = short_lived->get_bus().listen("*", note_event());
    auto waiting = short_lived->get_bus().wait_for({"a"}, seconds(60), note_code());
    short_lived.reset();
    EXPECT_FALSE(listening.active());
    EXPECT_FALSE(waiting.active());
    listening.release();
    waiting.release();
    loop->drain();
    loop->advance(seconds(60));
    EXPECT_THAT(codes, IsEmpty());
}

} // namespace
