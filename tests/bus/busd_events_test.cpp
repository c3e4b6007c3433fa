/// The daemon's events: who receives what, and who may send it.
#include "busd_fixture.h"

namespace {

using namespace busd_tests;

constexpr std::uint32_t event_object = 1;

wire::bytes number_field(const std::string& name, std::uint32_t value) {
    const wire::bytes attribute = wire::u32(0, value);
    return wire::field(BLOBMSG_TYPE_INT32, name,
                       wire::bytes(attribute.begin() + 4, attribute.end()));
}

wire::bytes text_field(const std::string& name, std::string value) {
    value.push_back('\0');
    return wire::field(BLOBMSG_TYPE_STRING, name, wire::bytes(value.begin(), value.end()));
}

wire::bytes table_field(const std::string& name, const wire::bytes& fields) {
    return wire::field(BLOBMSG_TYPE_TABLE, name, fields);
}

class BusdEvents : public broker_test {
protected:
    void SetUp() override {
        broker_test::SetUp();
        broker.attach(listener);
        listener.take();
    }
    void TearDown() override { broker.detach(listener); }

    std::uint32_t call(memory_client& from, const std::string& name, const wire::bytes& fields) {
        EXPECT_TRUE(send(from, wire::message(wire::invoke, 9, event_object,
                                             wire::objid(event_object) + wire::method(name) +
                                                 wire::data_of(fields))));
        return last_status(from);
    }

    std::uint32_t listen(memory_client& from, std::uint32_t object, const std::string& pattern) {
        return call(from, "register",
                    number_field("object", object) + text_field("pattern", pattern));
    }

    std::uint32_t send_event(memory_client& from, const std::string& id,
                             const wire::bytes& table = {}) {
        return call(from, "send", text_field("id", id) + table_field("data", table));
    }

    // The ids of the events that wait for a client.
    static std::vector<std::string> heard(memory_client& by) {
        std::vector<std::string> ids;
        for (const auto& message : by.take()) {
            if (message.type() == wire::invoke) {
                const auto id = message.attribute(4);
                ids.emplace_back(id.begin(), id.end() - 1);
            }
        }
        return ids;
    }

    memory_client listener{&broker};
};

using list = std::vector<std::string>;

TEST_F(BusdEvents, GoToWhomAPatternMatches) {
    const std::uint32_t exact = anonymous(listener);
    const std::uint32_t prefix = anonymous(service);
    EXPECT_EQ(listen(listener, exact, "net.up"), 0u);
    EXPECT_EQ(listen(service, prefix, "net.*"), 0u);
    const auto reaches = [&](const std::string& id) {
        EXPECT_EQ(send_event(caller, id), 0u);
        return std::make_pair(heard(listener), heard(service));
    };
    using both = std::pair<list, list>;
    EXPECT_EQ(reaches("net.up"), both({"net.up"}, {"net.up"}));
    EXPECT_EQ(reaches("net.up2"), both({}, {"net.up2"}));
    EXPECT_EQ(reaches("net."), both({}, {"net."}));
    EXPECT_EQ(reaches("net"), both({}, {}));
    EXPECT_EQ(reaches("a"), both({}, {}));
    EXPECT_EQ(reaches("x"), both({}, {}));
}

TEST_F(BusdEvents, OnlyTheLastStarOfAPatternIsOne) {
    const std::uint32_t id = anonymous(listener);
    EXPECT_EQ(listen(listener, id, "a*b"), 0u);
    EXPECT_EQ(listen(listener, id, "c**"), 0u);
    for (const char* event : {"a*b", "axb", "ab", "c*", "cx", "c*x"}) {
        EXPECT_EQ(send_event(caller, event), 0u);
    }
    EXPECT_EQ(heard(listener), (list{"a*b", "c*", "c*x"}));
}

TEST_F(BusdEvents, CarryIdTableAndARunningNumberButNoSender) {
    const std::uint32_t first = anonymous(listener);
    const std::uint32_t second = anonymous(listener);
    EXPECT_EQ(listen(listener, first, "*"), 0u);
    EXPECT_EQ(listen(listener, second, "net.*"), 0u);
    const wire::bytes table = number_field("up", 1) + text_field("name", "lan");
    EXPECT_EQ(send_event(caller, "net.up", table), 0u);
    const auto events = listener.take();
    ASSERT_EQ(events.size(), 2u);
    std::uint16_t seq = 0;
    for (const std::uint32_t id : {first, second}) {
        EXPECT_EQ(events.at(seq).raw,
                  wire::message(wire::invoke, static_cast<std::uint16_t>(seq + 1), 0,
                                wire::objid(id) + wire::method("net.up") + wire::data_of(table)));
        ++seq;
    }
}

TEST_F(BusdEvents, ReachAnObjectOnceHoweverManyOfItsPatternsMatch) {
    const std::uint32_t id = anonymous(listener);
    for (const char* pattern : {"*", "net.*", "net.up", "net.up", "n*"}) {
        EXPECT_EQ(listen(listener, id, pattern), 0u);
    }
    EXPECT_EQ(send_event(caller, "net.up"), 0u);
    EXPECT_EQ(heard(listener), list{"net.up"});
}

TEST_F(BusdEvents, DoNotComeBackToTheirSender) {
    const std::uint32_t own = anonymous(caller);
    const std::uint32_t other = anonymous(listener);
    EXPECT_EQ(listen(caller, own, "*"), 0u);
    EXPECT_EQ(listen(listener, other, "*"), 0u);
    ASSERT_TRUE(send(
        caller, wire::message(wire::invoke, 9, event_object,
                              wire::objid(event_object) + wire::method("send") +
                                  wire::data_of(text_field("id", "x") + table_field("data", {})))));
    EXPECT_EQ(heard(caller), list{});
    EXPECT_EQ(heard(listener), list{"x"});
}

TEST_F(BusdEvents, MayHaveAnyIdButThoseOfTheDaemon) {
    const std::uint32_t id = anonymous(listener);
    EXPECT_EQ(listen(listener, id, "*"), 0u);
    EXPECT_EQ(send_event(caller, "ubus.object.add"), 6u);
    EXPECT_EQ(send_event(caller, "ubus."), 6u);
    EXPECT_EQ(send_event(caller, "ubus"), 0u);
    EXPECT_EQ(send_event(caller, ""), 0u);
    EXPECT_EQ(heard(listener), (list{"ubus", ""}));
}

TEST_F(BusdEvents, AreRefusedWithoutWhatTheyNeed) {
    const std::uint32_t own = anonymous(listener);
    const wire::bytes object = number_field("object", own);
    const wire::bytes pattern = text_field("pattern", "x");
    EXPECT_EQ(call(listener, "register", object), 2u);
    EXPECT_EQ(call(listener, "register", pattern), 2u);
    EXPECT_EQ(call(listener, "register", object + number_field("pattern", 1)), 2u);
    EXPECT_EQ(call(listener, "register", text_field("object", "7") + pattern), 2u);
    EXPECT_EQ(call(listener, "register", {}), 2u);
    EXPECT_EQ(call(caller, "send", text_field("id", "x")), 2u);
    EXPECT_EQ(call(caller, "send", table_field("data", {})), 2u);
    EXPECT_EQ(
        call(caller, "send", text_field("id", "x") + wire::field(BLOBMSG_TYPE_ARRAY, "data", {})),
        2u);
    EXPECT_EQ(call(caller, "other", {}), 1u);
    ASSERT_TRUE(send(caller, wire::message(wire::invoke, 9, event_object,
                                           wire::objid(event_object) + wire::method("send"))));
    EXPECT_EQ(last_status(caller), 2u);
    // What else the call holds, even if it is none, does not matter.
    EXPECT_EQ(call(listener, "register", object + pattern + wire::bytes{0x85, 0, 0, 6, 1, 1, 0, 0}),
              0u);
}

TEST_F(BusdEvents, AreNotRegisteredForWhatIsNotOnesOwn) {
    const std::uint32_t own = anonymous(listener);
    EXPECT_EQ(listen(caller, own, "x"), 6u);
    EXPECT_EQ(listen(listener, own + 1, "x"), 4u);
    EXPECT_EQ(listen(listener, 1, "x"), 6u);
    EXPECT_EQ(listen(listener, 1023, "x"), 6u);
    EXPECT_EQ(listen(listener, own, ""), 6u);
    EXPECT_EQ(send_event(service, "x"), 0u);
    EXPECT_EQ(heard(listener), list{});
}

TEST_F(BusdEvents, EndWithTheObjectThatReceivesThem) {
    const std::uint32_t id = anonymous(listener);
    EXPECT_EQ(listen(listener, id, "*"), 0u);
    ASSERT_TRUE(send(listener, wire::message(wire::remove_object, 1, 0, wire::objid(id))));
    EXPECT_EQ(last_status(listener), 0u);
    EXPECT_EQ(send_event(caller, "x"), 0u);
    EXPECT_EQ(heard(listener), list{});

    EXPECT_EQ(listen(listener, anonymous(listener), "*"), 0u);
    broker.detach(listener);
    EXPECT_EQ(send_event(caller, "x"), 0u);
    broker.attach(listener);
    EXPECT_EQ(heard(listener), list{});
}

TEST_F(BusdEvents, NameTheObjectsThatComeAndGoBeforeTheirOwnerIsAnswered) {
    EXPECT_EQ(listen(listener, anonymous(listener), "ubus.object.*"), 0u);
    const std::uint32_t own = anonymous(service);
    EXPECT_EQ(listen(service, own, "*"), 0u);
    ASSERT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                            wire::objpath("demo") + wire::one_method("m"))));
    auto messages = service.take();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[1].type(), wire::data);
    const std::uint32_t id = messages[1].number(3);
    const wire::bytes about = wire::data_of(number_field("id", id) + text_field("path", "demo"));
    const wire::bytes added = wire::objid(own) + wire::method("ubus.object.add") + about;
    EXPECT_EQ(messages[0].raw, wire::message(wire::invoke, messages[0].seq(), 0, added));

    ASSERT_TRUE(send(service, wire::message(wire::remove_object, 2, 0, wire::objid(id))));
    messages = service.take();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].type(), wire::data);
    const wire::bytes removed = wire::objid(own) + wire::method("ubus.object.remove") + about;
    EXPECT_EQ(messages[1].raw, wire::message(wire::invoke, messages[1].seq(), 0, removed));
    EXPECT_EQ(messages[2].type(), wire::status);
    EXPECT_EQ(heard(listener), (list{"ubus.object.add", "ubus.object.remove"}));
}

TEST_F(BusdEvents, NameOnlyObjectsWithAPathAndTheNewestFirstWhenAClientGoes) {
    EXPECT_EQ(listen(listener, anonymous(listener), "*"), 0u);
    publish("first");
    anonymous(service);
    publish("second");
    listener.take();
    broker.detach(service);
    list paths;
    for (const auto& event : listener.take()) {
        const auto table = event.attribute(7);
        paths.emplace_back(reinterpret_cast<const char*>(&table.at(table.size() - 8)));
    }
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(paths[0], "second");
    EXPECT_EQ(paths[1], "first");
    broker.attach(service);
}

TEST_F(BusdEvents, ThatAFullReceiverCannotTakeAreLostForItAlone) {
    EXPECT_EQ(listen(listener, anonymous(listener), "*"), 0u);
    EXPECT_EQ(listen(service, anonymous(service), "*"), 0u);
    service.reads = true;
    const wire::bytes large = wire::field(BLOBMSG_TYPE_UNSPEC, "x", wire::bytes(100000));
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(send_event(caller, "big", large), 0u);
    }
    EXPECT_EQ(heard(listener).size(), 10u);
    EXPECT_EQ(heard(service).size(), 30u);
}

TEST_F(BusdEvents, ThatWouldBeTooLongToNameAnObjectAreLeftOut) {
    EXPECT_EQ(listen(listener, anonymous(listener), "*"), 0u);
    listener.reads = true;
    // A look-up can describe it just so; the event's own names make it longer.
    const std::string path(limit - 40, 'p');
    ASSERT_TRUE(send(
        service, wire::message(wire::add_object, 1, 0, wire::objpath(path) + wire::signature({}))));
    EXPECT_EQ(last_status(service), 0u);
    EXPECT_EQ(heard(listener), list{});
}

} // namespace
