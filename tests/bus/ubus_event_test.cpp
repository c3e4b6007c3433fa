/// libubus's events: what goes to the daemon to send one or to receive some, and what comes back.
#include "ubus_fixture.h"

#include <utility>

namespace {

using namespace ubus_tests;

using UbusEvents = ubus_test;

constexpr std::uint32_t event_object = 1;
constexpr std::uint32_t low_word = 0x12345678;

wire::bytes number_field(const std::string& name, std::uint32_t value) {
    const wire::bytes attribute = wire::u32(0, value);
    return wire::field(BLOBMSG_TYPE_INT32, name,
                       wire::bytes(attribute.begin() + 4, attribute.end()));
}

wire::bytes text_field(const std::string& name, std::string value) {
    value.push_back('\0');
    return wire::field(BLOBMSG_TYPE_STRING, name, wire::bytes(value.begin(), value.end()));
}

// A call of the daemon's object of events.
wire::bytes event_call(std::uint16_t seq, const std::string& name, const wire::bytes& fields) {
    return wire::message(wire::invoke, seq, event_object,
                         wire::objid(event_object) + wire::method(name) + wire::data_of(fields));
}

wire::bytes event(std::uint16_t seq, const std::string& id, const wire::bytes& fields = {}) {
    return wire::message(wire::invoke, seq, 0,
                         wire::objid(object_id) + wire::method(id) + wire::data_of(fields));
}

// The daemon's part: takes an anonymous object and one pattern.
void take_registration(wire::peer& client) {
    const auto added = client.receive();
    EXPECT_EQ(added.raw, wire::message(wire::add_object, added.seq(), 0, {}));
    client.send(wire::message(wire::data, added.seq(), 0, wire::objid(object_id)) +
                status(added, 0));
    client.send(status(client.receive(), 0));
}

std::vector<std::string> heard;

struct listening_object {
    listening_object() {
        heard.clear();
        handler.cb = [](ubus_context* ctx, ubus_event_handler* ev, const char* id, blob_attr* msg) {
            EXPECT_NE(ctx, nullptr);
            EXPECT_EQ(ev->obj.id, object_id);
            heard.push_back(id + std::string(" ") + std::to_string(blob_len(msg)));
        };
    }
    ubus_event_handler handler{};
};

TEST_F(UbusEvents, AnEventIsACallOfTheDaemonsObjectWithItsIdAndItsTable) {
    const scripted_bus bus([](wire::peer& client) {
        const wire::bytes table =
            wire::field(BLOBMSG_TYPE_TABLE, "data", number_field("up", low_word));
        const auto first = client.receive();
        EXPECT_EQ(first.raw, event_call(1, "send", text_field("id", "net.up") + table));
        client.send(status(first, 0));
        client.send(status(client.receive(), 6));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    buffer table;
    blobmsg_add_u32(&table.buf, "up", low_word);
    EXPECT_EQ(ubus_send_event(ctx.get(), "net.up", table.buf.head), 0);
    EXPECT_EQ(ubus_send_event(ctx.get(), "net.up", table.buf.head), UBUS_STATUS_PERMISSION_DENIED);
}

TEST_F(UbusEvents, TheFirstPatternPublishesTheHandlerTheNextOnesDoNot) {
    const scripted_bus bus([](wire::peer& client) {
        const auto adding = client.receive();
        EXPECT_EQ(adding.raw, wire::message(wire::add_object, 1, 0, {}));
        client.send(wire::message(wire::data, 1, 0, wire::objid(object_id)) + status(adding, 0));
        std::uint16_t seq = 1;
        for (const char* pattern : {"net.*", "usb"}) {
            const auto registration = client.receive();
            EXPECT_EQ(registration.raw, event_call(++seq, "register",
                                                   number_field("object", object_id) +
                                                       text_field("pattern", pattern)));
            client.send(status(registration, 0));
        }
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    listening_object listener;
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "net.*"), 0);
    EXPECT_EQ(listener.handler.obj.id, object_id);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "usb"), 0);
    EXPECT_EQ(ctx->objects.count, 1u);
}

TEST_F(UbusEvents, WithoutAPatternTheFieldIsLeftOut) {
    const scripted_bus bus([](wire::peer& client) {
        const auto added = client.receive();
        client.send(wire::message(wire::data, 1, 0, wire::objid(object_id)) + status(added, 0));
        const auto registration = client.receive();
        EXPECT_EQ(registration.raw, event_call(2, "register", number_field("object", object_id)));
        client.send(status(registration, 2));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    listening_object listener;
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, nullptr),
              UBUS_STATUS_INVALID_ARGUMENT);
    // It stays on the bus.
    EXPECT_EQ(listener.handler.obj.id, object_id);
}

TEST_F(UbusEvents, AHandlerThatCannotBePublishedIsNotRegistered) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(status(client.receive(), 6));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    listening_object listener;
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "*"),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(listener.handler.obj.id, 0u);
}

TEST_F(UbusEvents, ANameWithoutATypeOrATypeWithoutANameIsAnInvalidArgument) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    listening_object named;
    named.handler.obj.name = "name";
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &named.handler, "*"),
              UBUS_STATUS_INVALID_ARGUMENT);
    listening_object typed;
    ubus_object_type type{};
    typed.handler.obj.type = &type;
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &typed.handler, "*"),
              UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(UbusEvents, AHandlerReceivesIdAndTableAndItsStatusGoesToNobody) {
    const scripted_bus bus([](wire::peer& client) {
        take_registration(client);
        client.send(event(7, "net.up", number_field("up", 1)) + event(8, "usb"));
        for (const std::uint16_t seq : {std::uint16_t{7}, std::uint16_t{8}}) {
            EXPECT_EQ(
                client.receive().raw,
                wire::message(wire::status, seq, 0, wire::status_is(0) + wire::objid(object_id)));
        }
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    listening_object listener;
    ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "*"), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(heard, (std::vector<std::string>{"net.up 16", "usb 0"}));
}

TEST_F(UbusEvents, EventsThatComeInDuringASynchronousRequestWaitForItsEnd) {
    const scripted_bus bus([](wire::peer& client) {
        take_registration(client);
        const auto lookup = client.receive();
        client.send(event(1, "a") +
                    wire::message(wire::data, lookup.seq(), 0,
                                  wire::objpath("p") + wire::objid(7) + wire::objtype(8)) +
                    event(2, "b") + status(lookup, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    listening_object listener;
    ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "*"), 0);
    const auto found = [](ubus_context*, ubus_object_data*, void*) {
        heard.push_back("found");
    };
    EXPECT_EQ(ubus_lookup(ctx.get(), "p", found, nullptr), 0);
    EXPECT_EQ(heard, (std::vector<std::string>{"found", "a 0", "b 0"}));
}

TEST_F(UbusEvents, AHandlerMaySendAnEventItself) {
    const scripted_bus bus([](wire::peer& client) {
        take_registration(client);
        client.send(event(1, "ask"));
        const auto sent = client.receive();
        EXPECT_EQ(sent.attribute(4), (wire::bytes{'s', 'e', 'n', 'd', 0}));
        client.send(status(sent, 0));
        EXPECT_EQ(client.receive().type(), wire::status);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    listening_object listener;
    listener.handler.cb = [](ubus_context* c, ubus_event_handler*, const char*, blob_attr* msg) {
        heard.push_back("sent " + std::to_string(ubus_send_event(c, "answer", msg)));
    };
    ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "*"), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(heard, std::vector<std::string>{"sent 0"});
}

TEST_F(UbusEvents, WithdrawingAHandlerTakesItsObjectOffTheBus) {
    const scripted_bus bus([](wire::peer& client) {
        take_registration(client);
        const auto removal = client.receive();
        EXPECT_EQ(removal.raw, wire::message(wire::remove_object, 3, 0, wire::objid(object_id)));
        client.send(wire::message(wire::data, 3, 0, wire::objid(object_id)) + status(removal, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    listening_object listener;
    ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener.handler, "*"), 0);
    EXPECT_EQ(ubus_unregister_event_handler(ctx.get(), &listener.handler), 0);
    EXPECT_EQ(listener.handler.obj.id, 0u);
    EXPECT_EQ(ctx->objects.count, 0u);
}

// What the application does with its own connections, over a real daemon.
void serve_until(const context& ctx, std::size_t wanted) {
    ubus_add_uloop(ctx.get());
    while (heard.size() < wanted) {
        ASSERT_EQ(uloop_run_timeout(long_limit), 0);
    }
}

TEST_F(UbusEvents, AnEventReachesEveryListenerOfOthersOnce) {
    const tarn::test::bus_daemon daemon;
    const context receiving(ubus_connect(nullptr));
    const context sending(ubus_connect(nullptr));
    ASSERT_NE(receiving, nullptr);
    ASSERT_NE(sending, nullptr);
    heard.clear();
    ubus_event_handler own{};
    ubus_event_handler handler{};
    own.cb = handler.cb = [](ubus_context*, ubus_event_handler*, const char* id, blob_attr*) {
        heard.emplace_back(id);
    };
    for (const char* pattern : {"net.*", "net.up", "*"}) {
        ASSERT_EQ(ubus_register_event_handler(receiving.get(), &handler, pattern), 0);
    }
    ASSERT_EQ(ubus_register_event_handler(sending.get(), &own, "*"), 0);
    const buffer empty;
    EXPECT_EQ(ubus_send_event(sending.get(), "net.up", empty.buf.head), 0);
    EXPECT_EQ(ubus_send_event(sending.get(), "usb", empty.buf.head), 0);
    EXPECT_EQ(ubus_send_event(sending.get(), "ubus.usb", empty.buf.head),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(ubus_send_event(sending.get(), "last", empty.buf.head), 0);
    serve_until(receiving, 3);
    EXPECT_EQ(heard, (std::vector<std::string>{"net.up", "usb", "last"}));
}

TEST_F(UbusEvents, ObjectsThatComeAndGoAreEventsForTheirPublisherToo) {
    const tarn::test::bus_daemon daemon;
    const context ctx(ubus_connect(nullptr));
    ASSERT_NE(ctx, nullptr);
    heard.clear();
    ubus_event_handler handler{};
    handler.cb = [](ubus_context*, ubus_event_handler*, const char* id, blob_attr* msg) {
        const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"path", BLOBMSG_TYPE_STRING}};
        blob_attr* found[2];
        ASSERT_EQ(
            blobmsg_parse(policy, 2, found, blob_data(msg), static_cast<unsigned>(blob_len(msg))),
            0);
        ASSERT_NE(found[0], nullptr);
        ASSERT_NE(found[1], nullptr);
        heard.push_back(id + std::string(" ") + std::to_string(blobmsg_get_u32(found[0])) + " " +
                        blobmsg_get_string(found[1]));
    };
    ASSERT_EQ(ubus_register_event_handler(ctx.get(), &handler, "ubus.object.*"), 0);
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    const std::string id = std::to_string(demo.object.id);
    published anonymous(answer_ok);
    anonymous.object.name = nullptr;
    anonymous.object.type = nullptr;
    ASSERT_EQ(ubus_add_object(ctx.get(), &anonymous.object), 0);
    ASSERT_EQ(ubus_remove_object(ctx.get(), &demo.object), 0);
    EXPECT_EQ(heard, (std::vector<std::string>{"ubus.object.add " + id + " demo",
                                               "ubus.object.remove " + id + " demo"}));
}

} // namespace
