/// libubus's monitor: turning it on and off, and what the daemon shows.
#include "ubus_fixture.h"

#include <unistd.h>

namespace {

using namespace ubus_tests;

using UbusMonitor = ubus_test;

constexpr std::uint32_t monitor_object = 3;

std::vector<std::string> seen;

void note(ubus_context* ctx, std::uint32_t seq, blob_attr* data) {
    seen.push_back(std::to_string(seq) + " of " + std::to_string(blob_len(data)) + " at " +
                   std::to_string(ctx->stack_depth));
}

// What the call carries means nothing.
void expect_call_of_monitor(const wire::received& call, const std::string& name) {
    EXPECT_EQ(call.type(), wire::invoke);
    EXPECT_EQ(call.peer(), monitor_object);
    EXPECT_EQ(call.number(3), monitor_object);
    EXPECT_EQ(wire::nested(4, call.attribute(4)), wire::method(name));
}

TEST_F(UbusMonitor, IsTurnedOnAndOffByCallsOfTheDaemonsObject) {
    const scripted_bus bus([](wire::peer& client) {
        const auto start = client.receive();
        expect_call_of_monitor(start, "add");
        client.send(status(start, 0));
        const auto stop = client.receive();
        expect_call_of_monitor(stop, "remove");
        client.send(status(stop, 0));
        client.send(status(client.receive(), 6));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ubus_monitor_start(ctx.get()), 0);
    EXPECT_EQ(ubus_monitor_stop(ctx.get()), 0);
    EXPECT_EQ(ubus_monitor_start(ctx.get()), UBUS_STATUS_PERMISSION_DENIED);
}

TEST_F(UbusMonitor, MessagesAreHandedOverAtOnceEvenDuringASynchronousRequest) {
    seen.clear();
    const scripted_bus bus([](wire::peer& client) {
        const auto lookup = client.receive();
        // The ids of their attributes mean something else than those of other messages.
        client.send(wire::message(wire::monitor, 7, 0, wire::u32(1, 1) + wire::nested(2, {1})) +
                    status(lookup, 4) + wire::message(wire::monitor, 8, 0, {}));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    ctx->monitor_cb = note;
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(seen.front(), "7 of 16 at 1");
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(seen.back().substr(0, 9), "8 of 0 at");
}

TEST_F(UbusMonitor, WithoutACallbackMessagesArePassedOver) {
    const scripted_bus bus([](wire::peer& client) {
        const auto lookup = client.receive();
        client.send(wire::message(wire::monitor, 7, 0, wire::u32(1, 1)) + status(lookup, 4));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_NOT_FOUND);
}

} // namespace
