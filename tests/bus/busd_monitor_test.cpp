/// The daemon's monitor: who may turn it on, and what it shows.
#include "busd_fixture.h"

namespace {

using namespace busd_tests;

constexpr std::uint32_t monitor_object = 3;

wire::bytes call_of_monitor(const std::string& name) {
    return wire::message(wire::invoke, 1, monitor_object,
                         wire::objid(monitor_object) + wire::method(name) + wire::data_of({}));
}

// A copy of a message as the monitor gets it.
wire::bytes copy(std::uint16_t number, std::uint32_t client, bool to_client,
                 const wire::bytes& raw) {
    const wire::received whole{raw};
    return wire::message(wire::monitor, number, 0,
                         wire::u32(0, client) + wire::u32(1, whole.peer()) +
                             wire::u32(3, whole.seq()) + wire::u32(4, whole.type()) +
                             wire::nested(2, {to_client ? std::uint8_t{1} : std::uint8_t{0}}) +
                             wire::nested(5, wire::bytes(raw.begin() + 12, raw.end())));
}

class BusdMonitor : public broker_test {
protected:
    void SetUp() override {
        broker_test::SetUp();
        broker.attach(reader);
        reader.take();
    }
    void TearDown() override { broker.detach(reader); }

    std::uint32_t call(memory_client& from, const std::string& name) {
        EXPECT_TRUE(send(from, call_of_monitor(name)));
        return last_status(from);
    }

    memory_client reader{&broker, true};
};

TEST_F(BusdMonitor, IsForRootAlone) {
    EXPECT_EQ(call(caller, "add"), 6u);
    EXPECT_EQ(call(caller, "remove"), 6u);
    EXPECT_EQ(call(caller, "other"), 6u);
    EXPECT_EQ(call(reader, "add"), 0u);
    EXPECT_EQ(call(reader, "other"), 3u);
    EXPECT_EQ(call(reader, "remove"), 0u);
    EXPECT_EQ(call(reader, "remove"), 0u);
    ASSERT_TRUE(send(caller, wire::message(wire::ping, 1, 0, {})));
    EXPECT_TRUE(reader.take().empty());
}

TEST_F(BusdMonitor, ShowsWhatAClientSendsAndWhatItIsSent) {
    const std::uint32_t id = publish("demo");
    EXPECT_EQ(call(reader, "add"), 0u);
    const wire::bytes invoke =
        wire::message(wire::invoke, 7, id, wire::objid(id) + wire::method("m") + wire::data_of({}));
    ASSERT_TRUE(send(caller, invoke));
    const wire::bytes forwarded = service.take().at(0).raw;
    const wire::bytes answer =
        wire::message(wire::status, 7, caller.id(), wire::status_is(0) + wire::objid(id));
    ASSERT_TRUE(send(service, answer));
    const wire::bytes told = caller.take().at(0).raw;
    const auto shown = reader.take();
    ASSERT_EQ(shown.size(), 4u);
    EXPECT_EQ(shown[0].raw, copy(2, caller.id(), false, invoke));
    EXPECT_EQ(shown[1].raw, copy(3, service.id(), true, forwarded));
    EXPECT_EQ(shown[2].raw, copy(4, service.id(), false, answer));
    EXPECT_EQ(shown[3].raw, copy(5, caller.id(), true, told));
}

TEST_F(BusdMonitor, ShowsItsReadersOwnMessagesBeforeTheyArrive) {
    ASSERT_TRUE(send(reader, call_of_monitor("add")));
    const wire::bytes started = wire::message(wire::status, 1, monitor_object, wire::status_is(0));
    auto messages = reader.take();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].raw, copy(1, reader.id(), true, started));
    EXPECT_EQ(messages[1].raw, started);
    ASSERT_TRUE(send(reader, call_of_monitor("remove")));
    messages = reader.take();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].raw, copy(2, reader.id(), false, call_of_monitor("remove")));
    EXPECT_EQ(messages[1].raw, started);
}

TEST_F(BusdMonitor, StartsToCountAnewWhenItIsTurnedOnAgain) {
    EXPECT_EQ(call(reader, "add"), 0u);
    ASSERT_TRUE(send(reader, call_of_monitor("add")));
    const auto messages = reader.take();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].seq(), 2);
    EXPECT_EQ(messages[1].seq(), 1);
    EXPECT_EQ(messages[2].type(), wire::status);
}

TEST_F(BusdMonitor, ShowsGreetingsAndWhatIsNotUnderstood) {
    EXPECT_EQ(call(reader, "add"), 0u);
    memory_client joining;
    broker.attach(joining);
    const wire::bytes unknown = wire::message(200, 9, 8, {1, 2, 3});
    ASSERT_TRUE(send(joining, unknown));
    const auto shown = reader.take();
    ASSERT_EQ(shown.size(), 3u);
    EXPECT_EQ(shown[0].raw,
              copy(2, joining.id(), true, wire::message(wire::hello, 0, joining.id(), {})));
    EXPECT_EQ(shown[1].raw, copy(3, joining.id(), false, unknown));
    EXPECT_EQ(shown[2].number(0), joining.id());
    broker.detach(joining);
}

TEST_F(BusdMonitor, CopiesGoToEveryReaderButAreNotShownThemselves) {
    memory_client second(&broker, true);
    broker.attach(second);
    second.take();
    EXPECT_EQ(call(reader, "add"), 0u);
    EXPECT_EQ(call(second, "add"), 0u);
    reader.take();
    ASSERT_TRUE(send(caller, wire::message(wire::ping, 1, 0, {})));
    EXPECT_EQ(reader.take().size(), 3u);
    EXPECT_EQ(second.take().size(), 3u);
    broker.detach(second);
    ASSERT_TRUE(send(caller, wire::message(wire::ping, 1, 0, {})));
    EXPECT_EQ(reader.take().size(), 3u);
    EXPECT_TRUE(second.take().empty());
}

TEST_F(BusdMonitor, ShowsWhatAFullReceiverLoses) {
    const std::uint32_t id = publish("demo");
    EXPECT_EQ(call(reader, "add"), 0u);
    reader.reads = true;
    const wire::bytes large =
        wire::message(wire::invoke, 7, id,
                      wire::objid(id) + wire::method("m") + wire::data_of(wire::bytes(100000)));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(send(caller, large));
    }
    EXPECT_EQ(service.take().size(), 10u);
    EXPECT_EQ(reader.take().size(), 40u);
}

TEST_F(BusdMonitor, CopiesThatDoNotFitLeaveAGapInTheCount) {
    EXPECT_EQ(call(reader, "add"), 0u);
    const wire::bytes large = wire::message(wire::ping, 1, 0, wire::data_of(wire::bytes(400000)));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(send(caller, large));
        caller.take();
    }
    std::vector<std::uint16_t> counted;
    for (const auto& shown : reader.take()) {
        counted.push_back(shown.seq());
    }
    // Both of the first and both of their answers, but not the third large one.
    EXPECT_EQ(counted, (std::vector<std::uint16_t>{2, 3, 4, 7}));
}

TEST_F(BusdMonitor, ACopyAboveTheLimitOfAMessageIsLeftOut) {
    EXPECT_EQ(call(reader, "add"), 0u);
    caller.reads = reader.reads = true;
    ASSERT_TRUE(
        send(caller, wire::message(wire::ping, 1, 0, wire::data_of(wire::bytes(limit - 8)))));
    EXPECT_EQ(caller.take().size(), 2u);
    const auto shown = reader.take();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].number(4), std::uint32_t{wire::status});
    EXPECT_EQ(shown[0].seq(), 4);
}

TEST_F(BusdMonitor, TakesNoRoomFromWhatItsReaderAsksFor) {
    // With a copy of it the description exceeds the queue.
    const wire::bytes type = wire::one_method("m");
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                            wire::objpath(std::string(700000, 'p')) + type)));
    EXPECT_EQ(last_status(service), 0u);
    EXPECT_EQ(call(reader, "add"), 0u);
    ASSERT_TRUE(send(reader, wire::message(wire::lookup, 5, 0, {})));
    std::vector<int> types;
    for (const auto& message : reader.take()) {
        types.push_back(message.type());
    }
    EXPECT_EQ(types, (std::vector<int>{wire::monitor, wire::data, wire::monitor, wire::status}));
}

} // namespace
