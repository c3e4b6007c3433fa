/// The daemon's subscriptions: who may subscribe to what, what is reported of it, and where
/// notifications go.
#include "busd_fixture.h"

namespace {

using namespace busd_tests;

class BusdSubscriptions : public broker_test {
protected:
    void SetUp() override {
        broker_test::SetUp();
        demo = publish("demo");
        own = anonymous(caller);
    }

    std::uint32_t ask(memory_client& from, std::uint8_t type, const wire::bytes& attributes) {
        EXPECT_TRUE(send(from, wire::message(type, 5, 0, attributes)));
        return last_status(from);
    }
    std::uint32_t subscribe(memory_client& from, std::uint32_t subscriber, std::uint32_t target) {
        return ask(from, wire::subscribe, wire::objid(subscriber) + wire::u32(8, target));
    }
    std::uint32_t unsubscribe(memory_client& from, std::uint32_t subscriber, std::uint32_t target) {
        return ask(from, wire::unsubscribe, wire::objid(subscriber) + wire::u32(8, target));
    }
    void notify(const wire::bytes& more = wire::data_of({})) {
        EXPECT_TRUE(send(service, wire::message(wire::notify, 6, demo,
                                                wire::objid(demo) + wire::method("up") + more)));
    }

    static wire::bytes activity(std::uint16_t seq, std::uint32_t object, std::uint8_t active) {
        return wire::message(wire::notify, seq, 0, wire::objid(object) + wire::nested(9, {active}));
    }
    static wire::bytes lost(std::uint16_t seq, std::uint32_t subscriber, std::uint32_t target) {
        return wire::message(wire::unsubscribe, seq, 0,
                             wire::objid(subscriber) + wire::u32(8, target));
    }
    wire::bytes delivered(std::uint32_t subscriber, const wire::bytes& before = {},
                          const wire::bytes& data = wire::data_of({})) {
        return wire::message(wire::invoke, 6, service.id(),
                             before + wire::objid(subscriber) + wire::method("up") +
                                 wire::text(12, "alice") + wire::text(13, "staff") + data);
    }
    static std::vector<wire::bytes> raw(memory_client& of) {
        std::vector<wire::bytes> all;
        for (const auto& message : of.take()) {
            all.push_back(message.raw);
        }
        return all;
    }

    std::uint32_t demo = 0;
    std::uint32_t own = 0;
};

using messages = std::vector<wire::bytes>;

TEST_F(BusdSubscriptions, ThePublisherIsToldOfTheFirstSubscriberAndOfTheLast) {
    const std::uint32_t second = anonymous(caller);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    EXPECT_EQ(raw(service), messages{activity(1, demo, 1)});
    EXPECT_EQ(subscribe(caller, second, demo), 0u);
    EXPECT_EQ(unsubscribe(caller, own, demo), 0u);
    EXPECT_EQ(raw(service), messages{});
    EXPECT_EQ(unsubscribe(caller, second, demo), 0u);
    EXPECT_EQ(raw(service), messages{activity(2, demo, 0)});
}

TEST_F(BusdSubscriptions, AreRefusedWithTheirReason) {
    const std::uint32_t theirs = anonymous(service);
    EXPECT_EQ(subscribe(caller, own + 1, demo), 4u);
    EXPECT_EQ(subscribe(caller, own, demo + 1), 4u);
    EXPECT_EQ(subscribe(caller, own, 1), 4u);
    EXPECT_EQ(subscribe(caller, 1, demo), 2u);
    EXPECT_EQ(subscribe(caller, theirs, demo), 2u);
    EXPECT_EQ(subscribe(service, theirs, demo), 2u) << "an object of the same client";
    EXPECT_EQ(ask(caller, wire::subscribe, wire::objid(own)), 2u);
    EXPECT_EQ(ask(caller, wire::subscribe, wire::u32(8, demo)), 2u);
    EXPECT_EQ(raw(service), messages{});
}

TEST_F(BusdSubscriptions, EndOnlyIfThereAreAny) {
    EXPECT_EQ(unsubscribe(caller, own, demo), 4u);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    EXPECT_EQ(unsubscribe(caller, own, demo + 1), 4u);
    EXPECT_EQ(unsubscribe(caller, own + 1, demo), 4u);
    EXPECT_EQ(unsubscribe(service, own, demo), 2u);
    EXPECT_EQ(unsubscribe(caller, 1, demo), 2u);
    EXPECT_EQ(ask(caller, wire::unsubscribe, wire::objid(own)), 2u);
    EXPECT_EQ(raw(service), messages{});
    EXPECT_EQ(unsubscribe(caller, own, demo), 0u);
    EXPECT_EQ(unsubscribe(caller, own, demo), 4u);
}

TEST_F(BusdSubscriptions, AnObjectWithoutAPathMayBeSubscribedTo) {
    const std::uint32_t hidden = anonymous(service);
    EXPECT_EQ(subscribe(caller, own, hidden), 0u);
    EXPECT_EQ(raw(service), messages{activity(1, hidden, 1)});
}

TEST_F(BusdSubscriptions, ANotificationGoesToEachSubscriberTheNewestFirst) {
    const std::uint32_t second = anonymous(caller);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    EXPECT_EQ(subscribe(caller, second, demo), 0u);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    const wire::bytes data = wire::data_of(wire::field(BLOBMSG_TYPE_STRING, "k", {'v', 0}));
    notify(data);
    EXPECT_EQ(raw(caller), (messages{delivered(own, {}, data), delivered(second, {}, data),
                                     delivered(own, {}, data)}));
    EXPECT_EQ(raw(service),
              messages{wire::message(wire::status, 6, demo,
                                     wire::objid(demo) +
                                         wire::nested(11, wire::u32(0, own) + wire::u32(0, second) +
                                                              wire::u32(0, own)) +
                                         wire::status_is(0))});
}

TEST_F(BusdSubscriptions, ANotificationThatWantsNoAnswersIsNotAnswered) {
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    notify(wire::data_of({}) + wire::nested(10, {1}));
    EXPECT_EQ(raw(service), messages{});
    EXPECT_EQ(raw(caller), messages{delivered(own, wire::nested(10, {1}))});
    // The flag may say that it wants some.
    notify(wire::data_of({}) + wire::nested(10, {0}));
    EXPECT_EQ(last_status(service), 0u);
    EXPECT_EQ(raw(caller), messages{delivered(own)});
}

TEST_F(BusdSubscriptions, ANotificationWithoutSubscribersNamesNone) {
    notify();
    const auto answers = service.take();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].raw,
              wire::message(wire::status, 6, demo,
                            wire::objid(demo) + wire::nested(11, {}) + wire::status_is(0)));
}

TEST_F(BusdSubscriptions, ANotificationWithoutDataGoesOutWithoutIt) {
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    notify(wire::bytes{});
    EXPECT_EQ(raw(caller), messages{delivered(own, {}, {})});
}

TEST_F(BusdSubscriptions, OnlyTheOwnerNotifies) {
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    const wire::bytes name = wire::method("up") + wire::data_of({});
    EXPECT_EQ(ask(caller, wire::notify, wire::objid(demo) + name), 6u);
    EXPECT_EQ(ask(caller, wire::notify, wire::objid(1) + name), 6u);
    EXPECT_EQ(ask(service, wire::notify, wire::objid(demo + 1) + name), 4u);
    EXPECT_EQ(ask(service, wire::notify, name), 2u);
    EXPECT_EQ(ask(service, wire::notify, wire::objid(demo) + wire::data_of({})), 2u);
    // A refusal is reported although no answer is wanted.
    EXPECT_EQ(ask(caller, wire::notify, wire::objid(demo) + name + wire::nested(10, {1})), 6u);
    EXPECT_EQ(raw(caller), messages{});
}

TEST_F(BusdSubscriptions, ASubscriberAnswersAsTheOwnerOfACall) {
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    notify();
    const auto call = caller.take().at(0);
    service.take();
    const wire::bytes reply = wire::objid(own) + wire::data_of({});
    const wire::bytes end = wire::status_is(3) + wire::objid(own);
    ASSERT_TRUE(send(caller, wire::message(wire::data, call.seq(), call.peer(), reply) +
                                 wire::message(wire::status, call.seq(), call.peer(), end)));
    EXPECT_EQ(raw(service), (messages{wire::message(wire::data, 6, own, reply),
                                      wire::message(wire::status, 6, own, end)}));
}

TEST_F(BusdSubscriptions, EndWithThePublishersObject) {
    const std::uint32_t second = anonymous(caller);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    EXPECT_EQ(subscribe(caller, second, demo), 0u);
    service.take();
    ASSERT_TRUE(send(service, wire::message(wire::remove_object, 7, 0, wire::objid(demo))));
    const auto answers = service.take();
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[0].type(), wire::data);
    EXPECT_EQ(answers[1].raw, activity(2, demo, 0));
    EXPECT_EQ(answers[2].type(), wire::status);
    EXPECT_EQ(raw(caller), (messages{lost(1, second, demo), lost(1, own, demo)}));
    EXPECT_EQ(unsubscribe(caller, own, demo), 4u);
}

TEST_F(BusdSubscriptions, EndWithTheSubscribersObject) {
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    ASSERT_TRUE(send(caller, wire::message(wire::remove_object, 7, 0, wire::objid(own))));
    EXPECT_EQ(last_status(caller), 0u);
    EXPECT_EQ(raw(service), messages{activity(2, demo, 0)});
    notify();
    EXPECT_EQ(raw(caller), messages{});
}

TEST_F(BusdSubscriptions, EndWithTheClientOnEitherSide) {
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    broker.detach(caller);
    EXPECT_EQ(raw(service), messages{activity(2, demo, 0)});
    broker.attach(caller);
    caller.take();
    own = anonymous(caller);
    EXPECT_EQ(subscribe(caller, own, demo), 0u);
    service.take();
    broker.detach(service);
    EXPECT_EQ(raw(caller), messages{lost(1, own, demo)});
    EXPECT_EQ(raw(service), messages{}) << "nothing is for a client that has gone";
    broker.attach(service);
}

TEST_F(BusdSubscriptions, TwoThatAreSubscribedToEachOtherMayGoInAnyOrder) {
    const std::uint32_t mine = publish("mine");
    ASSERT_TRUE(send(caller, wire::message(wire::add_object, 1, 0, {})));
    const std::uint32_t theirs = caller.take().at(0).number(3);
    EXPECT_EQ(subscribe(caller, theirs, mine), 0u);
    EXPECT_EQ(subscribe(service, mine, theirs), 0u);
    caller.take();
    service.take();
    broker.detach(service);
    // Its own subscription ends first, which is the last of the other's.
    EXPECT_EQ(raw(caller), (messages{activity(1 + 1, theirs, 0), lost(1 + 2, theirs, mine)}));
    broker.attach(service);
}

TEST_F(BusdSubscriptions, MoreThanOneMessageCanNameAreAllNotified) {
    // Each subscriber takes eight bytes of the daemon's answer.
    constexpr std::size_t count = limit / 8 + 10;
    caller.reads = true;
    const wire::bytes request =
        wire::message(wire::subscribe, 5, 0, wire::objid(own) + wire::u32(8, demo));
    wire::bytes many;
    for (std::size_t i = 0; i < 1000; ++i) {
        many = std::move(many) + request;
    }
    for (std::size_t sent = 0; sent < count; sent += 1000) {
        ASSERT_TRUE(send(caller, many));
        caller.take();
    }
    service.take();
    notify(wire::bytes{});
    const auto answers = service.take();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].raw.size(), limit + 8);
    EXPECT_EQ(answers[0].number(1), 0u);
    EXPECT_GE(caller.take().size(), count);
}

} // namespace
