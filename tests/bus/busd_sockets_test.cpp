/// The daemon over sockets: what it writes when, to clients that read, that do not, and that go.
#include "support/bus_daemon.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/wire.h"

namespace {

using tarn::test::bus_daemon;

wire::peer join(const bus_daemon& daemon) {
    wire::peer joined(daemon.connect());
    EXPECT_EQ(joined.receive().type(), wire::hello);
    return joined;
}

std::uint32_t add_object(const wire::peer& owner, const wire::bytes& attributes) {
    owner.send(wire::message(wire::add_object, 1, 0, attributes));
    const std::uint32_t id = owner.receive().number(3);
    EXPECT_EQ(owner.receive().number(1), 0u);
    return id;
}

wire::bytes number_field(const std::string& name, std::uint32_t value) {
    const wire::bytes attribute = wire::u32(0, value);
    return wire::field(5, name, wire::bytes(attribute.begin() + 4, attribute.end()));
}

wire::bytes call(std::uint32_t object, const std::string& name, const wire::bytes& fields) {
    return wire::message(wire::invoke, 2, object,
                         wire::objid(object) + wire::method(name) + wire::data_of(fields));
}

void expect_answer_to_ping(const wire::peer& client) {
    client.send(wire::message(wire::ping, 99, 0, {}));
    EXPECT_EQ(client.receive().raw, wire::message(wire::data, 99, 0, {}));
    EXPECT_EQ(client.receive().raw, wire::message(wire::status, 99, 0, wire::status_is(0)));
}

constexpr int many = 3000;

// Four megabytes of descriptions.
void publish_many(const wire::peer& owner) {
    for (int i = 0; i < many; ++i) {
        std::string path = std::to_string(10000 + i);
        path.resize(1400, '.');
        add_object(owner, wire::objpath(path) + wire::one_method("m"));
    }
}

// Reads the answer of a look-up for all of them.
void expect_many(const wire::peer& asking, std::uint16_t seq) {
    for (int i = 0; i < many; ++i) {
        const auto found = asking.receive();
        ASSERT_EQ(found.type(), wire::data) << i;
        ASSERT_EQ(found.seq(), seq);
    }
    EXPECT_EQ(asking.receive().raw, wire::message(wire::status, seq, 0, wire::status_is(0)));
}

TEST(BusdSockets, ALongListReachesASlowReaderWholeAndOthersAreServedMeanwhile) {
    const bus_daemon daemon;
    const wire::peer service = join(daemon);
    publish_many(service);
    const wire::peer slow = join(daemon);
    slow.send(wire::message(wire::lookup, 7, 0, {}));
    const wire::peer other = join(daemon);
    other.send(wire::message(wire::lookup, 8, 0, {}));
    expect_many(other, 8);
    expect_answer_to_ping(service);
    expect_many(slow, 7);
    expect_answer_to_ping(slow);
}

TEST(BusdSockets, AClientThatHasStoppedSendingGetsTheRestOfItsList) {
    const bus_daemon daemon;
    const wire::peer service = join(daemon);
    publish_many(service);
    const wire::peer asking = join(daemon);
    asking.send(wire::message(wire::lookup, 7, 0, {}));
    // What comes together with the hang-up is not read: the first description says that it was.
    wire::received first = asking.receive();
    EXPECT_EQ(first.seq(), 7);
    ASSERT_EQ(::shutdown(asking.fd(), SHUT_WR), 0);
    for (int i = 1; i < many; ++i) {
        ASSERT_EQ(asking.receive().type(), wire::data) << i;
    }
    EXPECT_EQ(asking.receive().raw, wire::message(wire::status, 7, 0, wire::status_is(0)));
    asking.wait_for_end();
}

TEST(BusdSockets, WhatFollowsFromAClientsEndIsWrittenAtOnce) {
    const bus_daemon daemon;
    wire::peer service = join(daemon);
    const std::uint32_t id = add_object(service, wire::objpath("demo") + wire::one_method("m"));
    const wire::peer client = join(daemon);
    const std::uint32_t own = add_object(client, {});
    client.send(
        call(1, "register", number_field("object", own) + wire::field(3, "pattern", {'*', 0})));
    EXPECT_EQ(client.receive().number(1), 0u);
    client.send(wire::message(wire::subscribe, 3, 0, wire::objid(own) + wire::u32(8, id)));
    EXPECT_EQ(client.receive().number(1), 0u);
    // Nothing else happens on the bus from here on.
    service.close();
    EXPECT_EQ(client.receive().raw,
              wire::message(wire::unsubscribe, 1, 0, wire::objid(own) + wire::u32(8, id)));
    const auto event = client.receive();
    EXPECT_EQ(event.type(), wire::invoke);
    EXPECT_EQ(wire::nested(4, event.attribute(4)), wire::method("ubus.object.remove"));
}

TEST(BusdSockets, ManyThatGoAtOnceAreAllReportedAndTheOthersStay) {
    constexpr int clients = 100;
    const bus_daemon daemon;
    const wire::peer watching = join(daemon);
    const std::uint32_t own = add_object(watching, {});
    {
        // Each is subscribed to the next one, so that each end concerns one that may be gone.
        std::vector<wire::peer> going;
        std::uint32_t last = 0;
        for (int i = 0; i < clients; ++i) {
            going.push_back(join(daemon));
            const std::uint32_t id = add_object(
                going.back(), wire::objpath("o" + std::to_string(i)) + wire::one_method("m"));
            if (last != 0) {
                going.back().send(
                    wire::message(wire::subscribe, 3, 0, wire::objid(id) + wire::u32(8, last)));
                EXPECT_EQ(going.back().receive().number(1), 0u);
            }
            last = id;
        }
        watching.send(
            call(1, "register", number_field("object", own) + wire::field(3, "pattern", {'*', 0})));
        EXPECT_EQ(watching.receive().number(1), 0u);
    }
    for (int i = 0; i < clients; ++i) {
        EXPECT_EQ(watching.receive().number(3), own);
    }
    expect_answer_to_ping(watching);
}

TEST(BusdSockets, OnlyRootOfBothKindsMayMonitor) {
    const bus_daemon daemon;
    const wire::peer client = join(daemon);
    const bool is_root = ::geteuid() == 0 && ::getegid() == 0;
    client.send(call(3, "add", {}));
    const auto first = client.receive();
    EXPECT_EQ(first.type(), is_root ? wire::monitor : wire::status);
    const auto answer = is_root ? client.receive() : first;
    EXPECT_EQ(answer.number(1), is_root ? 0u : 6u);
}

} // namespace
