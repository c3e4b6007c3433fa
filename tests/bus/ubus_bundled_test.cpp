/// What the bundled libubus does where libubus itself loses step with the daemon, or has more or
/// less to offer: see the table in bus/README.md.
#include "ubus_fixture.h"

#include <cstdlib>
#include <iostream>

#include "support/allocations.h"

namespace {

using namespace ubus_tests;

using BundledUbus = ubus_test;

TEST_F(BundledUbus, TheEnvironmentNamesTheDefaultSocket) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    ::setenv("UBUS_SOCKET", bus.path(), 1);
    const context ctx(ubus_connect(nullptr));
    EXPECT_NE(ctx, nullptr);
    ::unsetenv("UBUS_SOCKET");
}

TEST_F(BundledUbus, ACallThatThereIsNoMemoryToKeepIsRefused) {
    scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto lookup = client.receive();
        client.send(call_of(1, "m"));
        const auto refusal = client.receive();
        EXPECT_EQ(refusal.type(), wire::status);
        EXPECT_EQ(refusal.seq(), 1);
        EXPECT_EQ(refusal.number(1), std::uint32_t{UBUS_STATUS_NO_MEMORY});
        client.send(status(lookup, 4));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    std::uint32_t id = 0;
    const tarn::test::failing_allocation failure(1);
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_TRUE(failure.happened());
}

/// Connects, publishes, looks up, and calls what is not there; whether all went as it should.
bool use_the_bus(const buffer& arguments) {
    const context ctx(ubus_connect(nullptr));
    published demo(answer_ok);
    std::uint32_t id = 0;
    return ctx != nullptr && ubus_add_object(ctx.get(), &demo.object) == 0 &&
           ubus_lookup_id(ctx.get(), "demo", &id) == 0 && id == demo.object.id &&
           ubus_invoke(ctx.get(), id + 1, "m", arguments.buf.head, nullptr, nullptr, long_limit) ==
               UBUS_STATUS_NOT_FOUND;
}

TEST_F(BundledUbus, EverySingleShortageOfMemoryShowsAsAnError) {
    const tarn::test::bus_daemon daemon;
    const buffer arguments;
    for (std::size_t nth = 1;; ++nth) {
        const tarn::test::failing_allocation failure(nth);
        const bool went_well = use_the_bus(arguments);
        const bool happened = failure.happened();
        ASSERT_NE(went_well, happened) << "at allocation " << nth;
        if (!happened) {
            std::cout << nth - 1 << " allocations failed in turn\n";
            EXPECT_GT(nth, 4U);
            return;
        }
    }
}

TEST_F(BundledUbus, BytesThatAreNoMessageEndTheConnection) {
    wire::bytes other_version = wire::message(wire::status, 1, 0, wire::status_is(0));
    other_version[0] = 3;
    const std::vector<wire::bytes> wrong{
        other_version,
        {0, 1, 0, 1, 0, 0, 0, 0, 0, 0x10, 0, 4},                                // too long
        {0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3},                                   // too short
        wire::message(wire::status, 1, 0, {1, 0, 0, 40, 0, 0, 0, 0}),           // beyond its end
        wire::message(wire::data, 1, 0, wire::nested(3, {1, 2})),               // half a number
        wire::message(wire::data, 1, 0, wire::nested(2, {'n', 'o', 'n', 'e'})), // no NUL
    };
    for (const wire::bytes& bytes : wrong) {
        lost = {};
        completed.clear();
        // The daemon itself leaves the socket open.
        const scripted_bus bus([&bytes](wire::peer& client) {
            client.receive();
            client.send(bytes);
            client.wait_for_end();
        });
        const context ctx(ubus_connect(bus.path()));
        ASSERT_NE(ctx, nullptr);
        ctx->connection_lost = on_lost;
        ubus_request request;
        start(ctx.get(), request);
        ubus_add_uloop(ctx.get());
        uloop_run();
        EXPECT_EQ(lost.times, 1) << wire::hex(bytes);
        EXPECT_TRUE(lost.eof);
        EXPECT_EQ(completed, std::vector<int>{7});
    }
}

TEST_F(BundledUbus, DescriptorsCannotBePassed) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_request request;
    const buffer empty;
    EXPECT_EQ(ubus_invoke_async_fd(ctx.get(), 1, "m", empty.buf.head, &request, 0),
              UBUS_STATUS_NOT_SUPPORTED);
}

TEST_F(BundledUbus, TheEndOfAConnectionIsToldOnce) {
    scripted_bus bus([](wire::peer&) {});
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    bus.join();
    for (int i = 0; i < 3; ++i) {
        ubus_handle_event(ctx.get());
    }
    EXPECT_EQ(lost.times, 1);
}

TEST_F(BundledUbus, AnEndInsideAHandlersRequestIsReportedOnce) {
    static int result = -1;
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        // Now the service is in its loop, or on the way there.
        EXPECT_EQ(client.receive().type(), wire::data);
        client.send(call_of(1, "m"));
        EXPECT_EQ(client.receive().type(), wire::lookup);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo([](ubus_context* c, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
        std::uint32_t id = 0;
        result = ubus_lookup_id(c, "other", &id);
        return 0;
    });
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    std::signal(SIGPIPE, SIG_IGN);
    ubus_request_data call{};
    EXPECT_EQ(ubus_send_reply(ctx.get(), &call, nullptr), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(result, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(lost.times, 1);
    EXPECT_EQ(lost.stack_depth, 2);
}

TEST_F(BundledUbus, WithdrawingAnObjectThatIsNotEnteredLeavesTheOthers) {
    const scripted_bus bus([](wire::peer& client) {
        for (int i = 0; i < 2; ++i) {
            client.send(added(client.receive(), object_id));
        }
        const auto removal = client.receive();
        client.send(wire::message(wire::data, removal.seq(), 0, wire::objid(object_id)) +
                    status(removal, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published first(answer_ok);
    published second(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &first.object), 0);
    ASSERT_EQ(ubus_add_object(ctx.get(), &second.object), 0);
    EXPECT_EQ(ubus_remove_object(ctx.get(), &second.object), 0);
    EXPECT_EQ(second.object.id, 0u);
    EXPECT_EQ(ctx->objects.count, 1u);
    EXPECT_EQ(avl_find(&ctx->objects, &first.object.id), &first.object.avl);
}

} // namespace
