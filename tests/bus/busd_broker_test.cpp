/// The daemon's message handling without sockets: bytes in, bytes out.
#include "busd_fixture.h"

#include <random>

namespace {

using namespace busd_tests;

using BusdBroker = broker_test;

TEST_F(BusdBroker, GreetsWithARandomIdAboveTheReservedOnes) {
    memory_client joining;
    broker.attach(joining);
    const auto messages = joining.take();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].raw, wire::message(wire::hello, 0, joining.id(), {}));
    EXPECT_GT(joining.id(), 1024u);
    EXPECT_NE(joining.id(), caller.id());
    broker.detach(joining);
}

TEST_F(BusdBroker, TakesMessagesInPiecesOfAnySize) {
    const std::uint32_t id = publish("demo");
    const wire::bytes calls =
        wire::message(wire::ping, 1, 0, {}) +
        wire::message(wire::invoke, 2, id,
                      wire::objid(id) + wire::method("m") + wire::data_of({})) +
        wire::message(wire::lookup, 3, 0, wire::objpath("demo"));
    for (std::size_t piece = 1; piece <= calls.size(); ++piece) {
        for (std::size_t at = 0; at < calls.size(); at += piece) {
            ASSERT_TRUE(
                broker.receive(caller, calls.data() + at, std::min(piece, calls.size() - at)));
        }
        const auto answers = caller.take();
        ASSERT_EQ(answers.size(), 4u) << piece;
        EXPECT_EQ(answers[1].raw, wire::message(wire::status, 1, 0, wire::status_is(0)));
        EXPECT_EQ(answers[2].type(), wire::data);
        EXPECT_EQ(answers[3].raw, wire::message(wire::status, 3, 0, wire::status_is(0)));
        ASSERT_EQ(service.take().size(), 1u);
    }
}

TEST_F(BusdBroker, AnswersPingWithWhatItHoldsAndAStatus) {
    for (const wire::bytes& inside :
         {wire::bytes{}, wire::status_is(3), wire::bytes{7, 0, 0, 5, 1}}) {
        ASSERT_TRUE(send(caller, wire::message(wire::ping, 77, 5, inside)));
        const auto answers = caller.take();
        ASSERT_EQ(answers.size(), 2u);
        EXPECT_EQ(answers[0].raw, wire::message(wire::data, 77, 5, inside));
        EXPECT_EQ(answers[1].raw, wire::message(wire::status, 77, 5, wire::status_is(0)));
    }
    // What is not well formed does not go out.
    ASSERT_TRUE(send(caller, wire::message(wire::ping, 77, 5, {1, 2, 3})));
    EXPECT_EQ(caller.take().at(0).raw, wire::message(wire::data, 77, 5, {}));
}

TEST_F(BusdBroker, AnswersTypesItDoesNotServeWithInvalidCommand) {
    for (const int type : {int{wire::hello}, int{wire::monitor}, 12, 200, 255}) {
        ASSERT_TRUE(send(caller, wire::message(static_cast<std::uint8_t>(type), 9, 3, {})));
        EXPECT_EQ(caller.take().at(0).raw, wire::message(wire::status, 9, 3, wire::status_is(1)))
            << type;
    }
}

TEST_F(BusdBroker, LooksUpExactPathsPrefixesAndAll) {
    publish("net");
    publish("net.eth0");
    publish("net.eth1");
    publish("system");
    const auto paths = [this](const wire::bytes& attributes) {
        EXPECT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, attributes)));
        std::vector<std::string> found;
        for (const auto& answer : caller.take()) {
            if (answer.type() == wire::data) {
                const auto path = answer.attribute(2);
                found.emplace_back(path.begin(), path.end() - 1);
            } else {
                found.push_back("status " + std::to_string(answer.number(1)));
            }
        }
        return found;
    };
    using list = std::vector<std::string>;
    EXPECT_EQ(paths(wire::objpath("net")), (list{"net", "status 0"}));
    EXPECT_EQ(paths(wire::objpath("net.*")), (list{"net.eth0", "net.eth1", "status 0"}));
    EXPECT_EQ(paths(wire::objpath("net*")), (list{"net", "net.eth0", "net.eth1", "status 0"}));
    EXPECT_EQ(paths({}), (list{"net", "net.eth0", "net.eth1", "system", "status 0"}));
    EXPECT_EQ(paths(wire::objpath("*")),
              (list{"net", "net.eth0", "net.eth1", "system", "status 0"}));
    EXPECT_EQ(paths(wire::objpath("net.eth2")), list{"status 4"});
    EXPECT_EQ(paths(wire::objpath("x*")), list{"status 4"});
    EXPECT_EQ(paths(wire::objpath("")), list{"status 2"});
}

TEST_F(BusdBroker, LookingUpAllOnAnEmptyBusSucceedsAndTellsNothing) {
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, {})));
    EXPECT_EQ(caller.take().at(0).raw, wire::message(wire::status, 1, 0, wire::status_is(0)));
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath("*"))));
    EXPECT_EQ(last_status(caller), 4u);
}

TEST_F(BusdBroker, RefusesATakenPath) {
    publish("demo");
    ASSERT_TRUE(send(caller, wire::message(wire::add_object, 1, 0,
                                           wire::objpath("demo") + wire::one_method("m"))));
    const auto answers = caller.take();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].number(1), 2u);
}

TEST_F(BusdBroker, PublishesWithAKnownTypeAndKeepsItUntilItsLastObjectGoes) {
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                            wire::objpath("a") + wire::one_method("m"))));
    const auto first = service.take().at(0);
    const std::uint32_t type = first.number(5);
    ASSERT_TRUE(send(
        service, wire::message(wire::add_object, 2, 0, wire::objpath("b") + wire::objtype(type))));
    const auto second = service.take().at(0);
    // Who names a type knows it.
    EXPECT_TRUE(second.attribute(5).empty());
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath("b"))));
    EXPECT_EQ(caller.take().at(0).number(5), type);

    ASSERT_TRUE(
        send(service, wire::message(wire::remove_object, 3, 0, wire::objid(first.number(3)))));
    EXPECT_TRUE(service.take().at(0).attribute(5).empty());
    ASSERT_TRUE(
        send(service, wire::message(wire::remove_object, 4, 0, wire::objid(second.number(3)))));
    EXPECT_EQ(service.take().at(0).number(5), type);

    ASSERT_TRUE(send(
        service, wire::message(wire::add_object, 5, 0, wire::objpath("c") + wire::objtype(type))));
    expect_object_without_a_type("c");
}

TEST_F(BusdBroker, PrefersANamedTypeToASignature) {
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                            wire::objpath("a") + wire::one_method("m"))));
    const std::uint32_t type = service.take().at(0).number(5);
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 2, 0,
                                            wire::objpath("b") + wire::objtype(type) +
                                                wire::one_method("other"))));
    EXPECT_EQ(service.take().at(0).number(5), type);
}

TEST_F(BusdBroker, AnAnonymousObjectCanBeCalledButNotLookedUp) {
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0, {})));
    const std::uint32_t id = service.take().at(0).number(3);
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath("*"))));
    EXPECT_EQ(last_status(caller), 4u);
    ASSERT_TRUE(
        send(caller, wire::message(wire::invoke, 2, id, wire::objid(id) + wire::method("m"))));
    EXPECT_EQ(service.take().at(0).type(), wire::invoke);
}

TEST_F(BusdBroker, AMethodThatIsNoSoundFieldWithANameLeavesTheObjectWithoutAType) {
    const std::vector<wire::bytes> signatures{
        wire::field(2, "", {}),                           // no name
        wire::field(2, "m", {}) + wire::field(2, "", {}), // no name, behind a good one
        {2, 0, 0, 4},                                     // no header
        {0x82, 0, 0, 2},                                  // shorter than its own head
        {0x82, 0, 0, 8, 0, 2, 'a', 'b'},                  // a name without its end
        wire::field(5, "m", {0, 0}),                      // a short number
    };
    int made = 0;
    for (const wire::bytes& signature : signatures) {
        const std::string path = "o" + std::to_string(++made);
        ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                                wire::objpath(path) + wire::signature(signature))));
        SCOPED_TRACE(wire::hex(signature));
        expect_object_without_a_type(path);
    }
}

TEST_F(BusdBroker, WhatBeginsNoWholeMethodIsLeftOutOfTheSignature) {
    const wire::bytes good = wire::field(2, "m", {});
    const wire::bytes other = wire::field(3, "text", {'x', 0});
    const std::vector<std::pair<wire::bytes, wire::bytes>> cases{
        {{}, {}},
        {good + wire::bytes{0, 0}, good},
        {good + wire::bytes{0x82, 0, 0, 0x20, 0, 1, 'm', 0}, good},
        {{0x82, 0, 0, 8, 0, 1}, {}},
        {good + other, good + other},
    };
    int made = 0;
    for (const auto& [sent, told] : cases) {
        const std::string path = "o" + std::to_string(++made);
        ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                                wire::objpath(path) + wire::signature(sent))));
        EXPECT_NE(service.take().at(0).number(5), 0u);
        ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath(path))));
        EXPECT_EQ(caller.take().at(0).attribute(6), told) << wire::hex(sent);
    }
}

TEST_F(BusdBroker, APathWithoutATypeIsTakenButNotTold) {
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0, wire::objpath("a"))));
    expect_object_without_a_type("a");
    ASSERT_TRUE(send(
        caller, wire::message(wire::add_object, 1, 0, wire::objpath("a") + wire::one_method("m"))));
    EXPECT_EQ(last_status(caller), 2u);
}

TEST_F(BusdBroker, TheEmptyPathIsAPathThatOnlyAPatternFinds) {
    const std::uint32_t id = publish("");
    EXPECT_NE(id, 0u);
    ASSERT_TRUE(send(
        caller, wire::message(wire::add_object, 1, 0, wire::objpath("") + wire::one_method("m"))));
    EXPECT_EQ(last_status(caller), 2u);
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 2, 0, wire::objpath("*"))));
    EXPECT_EQ(caller.take().at(0).number(3), id);
    ASSERT_TRUE(send(service, wire::message(wire::remove_object, 3, 0, wire::objid(id))));
    EXPECT_EQ(last_status(service), 0u);
    EXPECT_NE(publish(""), 0u);
}

TEST_F(BusdBroker, RefusesAnObjectThatCouldNotBeDescribed) {
    // The path fills the description up to the limit, or one byte beyond it.
    const wire::bytes type = wire::one_method("m");
    const std::size_t others = 4 + 2 * 8 + type.size() + 4;
    caller.reads = true;
    for (const bool fits : {true, false}) {
        const std::string path(limit - others - (fits ? 1 : 0), 'p');
        ASSERT_TRUE(
            send(service, wire::message(wire::add_object, 1, 0, wire::objpath(path) + type)));
        EXPECT_EQ(last_status(service), fits ? 0U : 2U);
        ASSERT_TRUE(send(caller, wire::message(wire::lookup, 2, 0, {})));
        const auto answers = caller.take();
        ASSERT_EQ(answers.size(), 2U) << "the first object, and the status";
        EXPECT_LE(answers[0].raw.size(), limit + 8);
    }
}

TEST_F(BusdBroker, OnlyTheOwnerRemovesAnObject) {
    const std::uint32_t id = publish("demo");
    ASSERT_TRUE(send(caller, wire::message(wire::remove_object, 1, 0, wire::objid(id))));
    EXPECT_EQ(last_status(caller), 6u);
    ASSERT_TRUE(send(caller, wire::message(wire::remove_object, 2, 0, wire::objid(id + 1))));
    EXPECT_EQ(last_status(caller), 4u);
    ASSERT_TRUE(send(service, wire::message(wire::remove_object, 3, 0, wire::objid(id))));
    EXPECT_EQ(last_status(service), 0u);
    ASSERT_TRUE(send(service, wire::message(wire::remove_object, 4, 0, wire::objid(id))));
    EXPECT_EQ(last_status(service), 4u);
}

TEST_F(BusdBroker, ForwardsACallWithTheCallersNames) {
    const std::uint32_t id = publish("demo");
    const wire::bytes forged = wire::text(12, "root") + wire::text(13, "root");
    ASSERT_TRUE(send(
        caller, wire::message(wire::invoke, 7, id,
                              wire::objid(id) + wire::method("m") + forged + wire::data_of({}))));
    EXPECT_EQ(service.take().at(0).raw,
              wire::message(wire::invoke, 7, caller.id(),
                            wire::objid(id) + wire::method("m") + wire::text(12, "alice") +
                                wire::text(13, "staff") + wire::data_of({})));
}

TEST_F(BusdBroker, ForwardsACallWithoutDataAsItIs) {
    const std::uint32_t id = publish("demo");
    ASSERT_TRUE(
        send(caller, wire::message(wire::invoke, 7, id, wire::objid(id) + wire::method("m"))));
    EXPECT_TRUE(service.take().at(0).attribute(7).empty());
    EXPECT_TRUE(caller.take().empty());
}

TEST_F(BusdBroker, DoesNotPassOnThatACallWantsNoReply) {
    const std::uint32_t id = publish("demo");
    ASSERT_TRUE(send(caller, wire::message(wire::invoke, 7, id,
                                           wire::objid(id) + wire::method("m") +
                                               wire::nested(10, {1}) + wire::data_of({}))));
    EXPECT_TRUE(service.take().at(0).attribute(10).empty());
}

TEST_F(BusdBroker, DropsACallThatTheNamesMakeTooLong) {
    const std::uint32_t id = publish("demo");
    const wire::bytes head = wire::objid(id) + wire::method("m");
    const wire::bytes largest = wire::data_of(wire::bytes(limit - 4 - head.size() - 4));
    ASSERT_TRUE(send(caller, wire::message(wire::invoke, 7, id, head + largest)));
    EXPECT_TRUE(service.take().empty());
    EXPECT_TRUE(caller.take().empty());
}

TEST_F(BusdBroker, ForwardsTheLongestMessageThatFits) {
    const std::uint32_t id = publish("demo");
    const wire::bytes head = wire::objid(id) + wire::method("m");
    const wire::bytes names = wire::text(12, "alice") + wire::text(13, "staff");
    const wire::bytes data = wire::data_of(wire::bytes(limit - 4 - head.size() - names.size() - 4));
    ASSERT_TRUE(send(caller, wire::message(wire::invoke, 7, id, head + data)));
    EXPECT_EQ(service.take().at(0).raw,
              wire::message(wire::invoke, 7, caller.id(), head + names + data));
}

TEST_F(BusdBroker, RefusesACallOfNothing) {
    ASSERT_TRUE(
        send(caller, wire::message(wire::invoke, 1, 99, wire::objid(99) + wire::method("m"))));
    EXPECT_EQ(last_status(caller), 4u);
    ASSERT_TRUE(send(caller, wire::message(wire::invoke, 2, 99, wire::method("m"))));
    EXPECT_EQ(last_status(caller), 2u);
}

TEST_F(BusdBroker, ForwardsAnswersOnlyFromTheObjectsOwner) {
    const std::uint32_t id = publish("demo");
    memory_client stranger;
    broker.attach(stranger);
    const auto answer =
        wire::message(wire::status, 7, caller.id(), wire::status_is(0) + wire::objid(id));
    ASSERT_TRUE(send(stranger, answer));
    EXPECT_TRUE(caller.take().empty());
    ASSERT_TRUE(send(service, answer));
    EXPECT_EQ(caller.take().at(0).raw,
              wire::message(wire::status, 7, id, wire::status_is(0) + wire::objid(id)));
    broker.detach(stranger);
}

TEST_F(BusdBroker, DropsAnswersThatLackWhatTheyAreAbout) {
    const std::uint32_t id = publish("demo");
    ASSERT_TRUE(send(service, wire::message(wire::data, 7, caller.id(), wire::objid(id))));
    ASSERT_TRUE(send(service, wire::message(wire::data, 7, caller.id(), wire::data_of({}))));
    ASSERT_TRUE(send(service, wire::message(wire::status, 7, caller.id(), wire::objid(id))));
    ASSERT_TRUE(send(service, wire::message(wire::status, 7, caller.id(), wire::status_is(0))));
    EXPECT_TRUE(caller.take().empty());
    EXPECT_TRUE(service.take().empty());
}

TEST_F(BusdBroker, DropsAnswersForAClientThatHasGone) {
    const std::uint32_t id = publish("demo");
    const std::uint32_t gone = caller.id();
    broker.detach(caller);
    ASSERT_TRUE(
        send(service, wire::message(wire::data, 7, gone, wire::objid(id) + wire::data_of({}))));
    EXPECT_TRUE(service.take().empty());
    broker.attach(caller);
}

TEST_F(BusdBroker, AClientThatGoesTakesItsObjectsWithIt) {
    const std::uint32_t id = publish("demo");
    broker.detach(service);
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath("demo"))));
    EXPECT_EQ(last_status(caller), 4u);
    ASSERT_TRUE(
        send(caller, wire::message(wire::invoke, 2, id, wire::objid(id) + wire::method("m"))));
    EXPECT_EQ(last_status(caller), 4u);
    broker.attach(service);
}

TEST_F(BusdBroker, TakesAnIllFormedAttributeForAMissingOne) {
    publish("demo");
    const std::vector<wire::bytes> without_a_path{
        wire::nested(2, {'n', 'o', 'n', 'u', 'l'}), // a path without its end
        {2, 0, 0, 4},                               // a path of no bytes
        {2, 0, 0, 3},                               // shorter than its own head
        {2, 0, 0, 9, 'a', 0, 0, 0},                 // longer than the message
        {2, 0, 0},                                  // less than a head
    };
    for (const wire::bytes& attributes : without_a_path) {
        ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, attributes)));
        const auto answers = caller.take();
        ASSERT_EQ(answers.size(), 2u) << wire::hex(attributes);
        EXPECT_EQ(answers[1].number(1), 0u);
    }
    ASSERT_TRUE(send(caller, wire::message(wire::remove_object, 2, 0, wire::nested(3, {0, 1}))));
    EXPECT_EQ(last_status(caller), 2u);
}

TEST_F(BusdBroker, OfTwoAttributesWithOneIdTheLastCounts) {
    publish("demo");
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0,
                                           wire::objpath("nothing") + wire::objpath("demo"))));
    EXPECT_EQ(last_status(caller), 0u);
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0,
                                           wire::objpath("demo") + wire::objpath("nothing"))));
    EXPECT_EQ(last_status(caller), 4u);
}

TEST_F(BusdBroker, CutsOffAnotherVersion) {
    wire::bytes raw = wire::message(wire::ping, 1, 0, {});
    raw[0] = 1;
    EXPECT_FALSE(send(caller, raw));
}

TEST_F(BusdBroker, CutsOffALengthBelowTheHead) {
    wire::bytes raw = wire::message(wire::ping, 1, 0, {});
    raw[11] = 3;
    EXPECT_FALSE(send(caller, raw));
}

TEST_F(BusdBroker, CutsOffALengthAboveTheLimitAsSoonAsItIsAnnounced) {
    wire::bytes raw = wire::message(wire::ping, 1, 0, {});
    raw[9] = 0x10;
    raw[10] = 0;
    raw[11] = 1;
    EXPECT_FALSE(send(caller, raw));
}

TEST_F(BusdBroker, CutsOffABlobWithAnId) {
    wire::bytes raw = wire::message(wire::ping, 1, 0, {});
    raw[8] = 1;
    EXPECT_FALSE(send(caller, raw));
    raw[8] = 0x80;
    EXPECT_FALSE(send(service, raw));
}

TEST_F(BusdBroker, DropsWholeMessagesForASlowReaderAndStaysInStep) {
    const std::uint32_t id = publish("demo");
    const wire::bytes call =
        wire::message(wire::invoke, 7, id,
                      wire::objid(id) + wire::method("m") + wire::data_of(wire::bytes(100000)));
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(send(caller, call));
    }
    const auto kept = service.take();
    EXPECT_EQ(kept.size(), 10u);
    for (const auto& message : kept) {
        EXPECT_EQ(message.type(), wire::invoke);
    }
    ASSERT_TRUE(send(caller, call));
    EXPECT_EQ(service.take().size(), 1u);
}

TEST_F(BusdBroker, LosesNothingForAReaderThatKeepsUp) {
    const std::uint32_t id = publish("demo");
    service.reads = true;
    const wire::bytes call =
        wire::message(wire::invoke, 7, id,
                      wire::objid(id) + wire::method("m") + wire::data_of(wire::bytes(100000)));
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(send(caller, call));
    }
    EXPECT_EQ(service.take().size(), 50u);
}

TEST_F(BusdBroker, AClientMayCallItsOwnObject) {
    const std::uint32_t id = publish("demo");
    ASSERT_TRUE(
        send(service, wire::message(wire::invoke, 7, id, wire::objid(id) + wire::method("m"))));
    const auto call = service.take().at(0);
    ASSERT_TRUE(send(service, wire::message(wire::status, 7, call.peer(),
                                            wire::status_is(0) + wire::objid(id))));
    EXPECT_EQ(service.take().at(0).peer(), id);
}

TEST_F(BusdBroker, SurvivesAnyBytes) {
    std::mt19937 random(20);
    const std::uint32_t id = publish("demo");
    const std::vector<wire::bytes> seeds{
        wire::message(wire::lookup, 1, 0, wire::objpath("demo*")),
        wire::message(wire::invoke, 2, id, wire::objid(id) + wire::method("m") + wire::data_of({})),
        wire::message(wire::add_object, 3, 0, wire::objpath("x") + wire::one_method("m")),
        wire::message(wire::remove_object, 4, 0, wire::objid(id)),
        wire::message(wire::data, 5, caller.id(), wire::objid(id) + wire::data_of({}))};
    for (int round = 0; round < 20000; ++round) {
        memory_client hostile;
        broker.attach(hostile);
        wire::bytes raw;
        for (int i = 0; i < 4; ++i) {
            raw = raw + seeds[random() % seeds.size()];
        }
        for (int i = 0; i < 3; ++i) {
            raw[random() % raw.size()] = static_cast<std::uint8_t>(random());
        }
        // A copy of exactly its size, so that a sanitizer sees one byte too many.
        const wire::bytes exact(raw.begin(), raw.end());
        broker.receive(hostile, exact.data(), exact.size());
        hostile.take();
        broker.detach(hostile);
    }
    service.take();
    ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath("demo"))));
    EXPECT_EQ(last_status(caller), 0u);
}

} // namespace
