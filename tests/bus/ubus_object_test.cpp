/// What libubus does with objects: its own, those that it looks up, and calls of them.
#include "ubus_fixture.h"

#include <string>

namespace {

using namespace ubus_tests;

using UbusObjects = ubus_test;

TEST_F(UbusObjects, ARemovalThatIsAnsweredWithoutDataLeavesTheObject) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        client.send(status(client.receive(), 0));
        const auto again = client.receive();
        client.send(wire::message(wire::data, again.seq(), 0, wire::objid(object_id)) +
                    status(again, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    EXPECT_EQ(ubus_remove_object(ctx.get(), &demo.object), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(demo.object.id, object_id);
    EXPECT_EQ(ctx->objects.count, 1u);
    EXPECT_EQ(ubus_remove_object(ctx.get(), &demo.object), 0);
    EXPECT_EQ(demo.object.id, 0u);
    EXPECT_EQ(ctx->objects.count, 0u);
}

TEST_F(UbusObjects, ARemovalThatFailsAfterItsDataHasTakenTheObjectOut) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto removal = client.receive();
        client.send(wire::message(wire::data, removal.seq(), 0, wire::objid(object_id)) +
                    status(removal, 4));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    EXPECT_EQ(ubus_remove_object(ctx.get(), &demo.object), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(demo.object.id, 0u);
    EXPECT_EQ(ctx->objects.count, 0u);
}

TEST_F(UbusObjects, APublicationThatIsAnsweredWithoutAnIdHasNoData) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(status(client.receive(), 0));
        const auto second = client.receive();
        client.send(wire::message(wire::data, second.seq(), 0, wire::objtype(7000)) +
                    status(second, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    for (int i = 0; i < 2; ++i) {
        published demo(answer_ok);
        EXPECT_EQ(ubus_add_object(ctx.get(), &demo.object), UBUS_STATUS_NO_DATA);
        EXPECT_EQ(demo.object.id, 0u);
        EXPECT_EQ(ctx->objects.count, 0u);
    }
}

TEST_F(UbusObjects, APublicationThatFailsAfterItsDataHasEnteredTheObject) {
    const scripted_bus bus([](wire::peer& client) {
        const auto request = client.receive();
        client.send(wire::message(wire::data, request.seq(), 0, wire::objid(object_id)) +
                    status(request, 2));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(answer_ok);
    EXPECT_EQ(ubus_add_object(ctx.get(), &demo.object), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(demo.object.id, object_id);
    EXPECT_EQ(ctx->objects.count, 1u);
}

TEST_F(UbusObjects, ASecondObjectWithAnIdInUseIsNotEntered) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        client.send(added(client.receive(), object_id));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published first(answer_ok);
    published second(answer_ok);
    EXPECT_EQ(ubus_add_object(ctx.get(), &first.object), 0);
    EXPECT_EQ(ubus_add_object(ctx.get(), &second.object), 0);
    EXPECT_EQ(second.object.id, object_id);
    EXPECT_EQ(ctx->objects.count, 1u);
    EXPECT_EQ(avl_find(&ctx->objects, &first.object.id), &first.object.avl);
}

TEST_F(UbusObjects, ALookupTellsOnlyOfObjectsWithAPathAndAType) {
    const scripted_bus bus([](wire::peer& client) {
        const auto lookup = client.receive();
        const auto found = [&lookup](const wire::bytes& what) {
            return wire::message(wire::data, lookup.seq(), 0, what);
        };
        client.send(found(wire::objid(1)) + found(wire::objpath("b") + wire::objid(2)) +
                    found(wire::objid(3) + wire::objtype(7)) +
                    found(wire::objpath("d") + wire::objtype(7)) +
                    found(wire::objpath("e") + wire::objid(5) + wire::objtype(7)) +
                    status(lookup, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    std::vector<std::uint32_t> told;
    const auto tell = [](ubus_context*, ubus_object_data* found, void* priv) {
        static_cast<std::vector<std::uint32_t>*>(priv)->push_back(found->id);
    };
    EXPECT_EQ(ubus_lookup(ctx.get(), "*", tell, &told), 0);
    EXPECT_EQ(told, std::vector<std::uint32_t>{5});
}

TEST_F(UbusObjects, AnObjectWithoutATypeIsPublishedWithoutItsName) {
    const scripted_bus bus([](wire::peer& client) {
        const auto request = client.receive();
        EXPECT_EQ(request.raw, wire::message(wire::add_object, 1, 0, {}));
        client.send(wire::message(wire::data, request.seq(), 0, wire::objid(object_id)) +
                    status(request, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(answer_ok);
    demo.object.type = nullptr;
    EXPECT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
}

TEST_F(UbusObjects, AMethodWithoutANameTakesEveryCall) {
    static std::string called;
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id) + call_of(11, "anything"));
        EXPECT_EQ(client.receive().number(1), 0u);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo(
        [](ubus_context*, ubus_object*, ubus_request_data*, const char* name, blob_attr*) {
            called = name;
            return 0;
        });
    demo.methods[0].name = nullptr;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(called, "anything");
}

TEST_F(UbusObjects, ACallWithoutAnObjectHereOrAMethodIsAnsweredToNobody) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto call = [&client](const wire::bytes& attributes) {
            client.send(wire::message(wire::invoke, 13, 9000, attributes));
            return client.receive().raw;
        };
        const auto to_nobody = [](std::uint32_t value) {
            return wire::message(wire::status, 0, 0, wire::status_is(value) + wire::objid(0));
        };
        EXPECT_EQ(call(wire::objid(1) + wire::method("m") + wire::data_of({})), to_nobody(4));
        EXPECT_EQ(call(wire::objid(1)), to_nobody(4));
        EXPECT_EQ(call(wire::objid(1) + wire::method("m") + wire::nested(10, {1})), to_nobody(4));
        EXPECT_EQ(call(wire::objid(object_id) + wire::data_of({})), to_nobody(2));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
}

TEST_F(UbusObjects, ACallThatWantsNoReplyHearsOnlyThatItCannotBeHandled) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto call = [&client](std::uint16_t seq, const wire::bytes& attributes) {
            client.send(wire::message(wire::invoke, seq, 9000,
                                      wire::objid(object_id) + attributes + wire::nested(10, {1})));
        };
        call(11, wire::method("m") + wire::data_of({}));
        call(12, wire::method("other") + wire::data_of({}));
        call(13, wire::method("m"));
        const auto told = [](std::uint16_t seq, std::uint32_t value) {
            return wire::message(wire::status, seq, 9000,
                                 wire::status_is(value) + wire::objid(object_id));
        };
        EXPECT_EQ(client.receive().raw, told(12, 3));
        EXPECT_EQ(client.receive().raw, told(13, 2));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
}

TEST_F(UbusObjects, AReplyAboveTheLimitIsSentAndCostsTheConnection) {
    const tarn::test::bus_daemon daemon;
    const context ctx(ubus_connect(nullptr));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    buffer reply;
    const std::vector<char> value(limit);
    blob_put(&reply.buf, 1, value.data(), static_cast<unsigned>(value.size()));
    ubus_request_data call{};
    ubus_add_uloop(ctx.get());
    std::signal(SIGPIPE, SIG_IGN);
    // The daemon may cut the line while the rest is still being written.
    const int sent = ubus_send_reply(ctx.get(), &call, reply.buf.head);
    EXPECT_TRUE(sent == UBUS_STATUS_OK || sent == UBUS_STATUS_NO_DATA) << sent;
    uloop_run();
    EXPECT_EQ(lost.times, 1);
}

TEST_F(UbusObjects, ALookupWithoutDataLeavesTheIdAsItWas) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(status(client.receive(), 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    std::uint32_t id = 4711;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "hidden", &id), 0);
    EXPECT_EQ(id, 4711u);
}

TEST_F(UbusObjects, ATakenNameIsAnInvalidArgument) {
    const tarn::test::bus_daemon daemon;
    const context first(ubus_connect(nullptr));
    const context second(ubus_connect(nullptr));
    published mine(answer_ok);
    published theirs(answer_ok);
    EXPECT_EQ(ubus_add_object(first.get(), &mine.object), 0);
    EXPECT_EQ(ubus_add_object(second.get(), &theirs.object), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(UbusObjects, AHandlerSeesWhoCallsAndItsResultIsTheStatus) {
    scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id) + call_of(11, "m"));
        EXPECT_EQ(client.receive().raw, wire::message(wire::status, 11, 9000,
                                                      wire::status_is(8) + wire::objid(object_id)));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo([](ubus_context*, ubus_object* object, ubus_request_data* req, const char* name,
                      blob_attr* msg) {
        EXPECT_STREQ(req->acl.user, "joe");
        EXPECT_STREQ(req->acl.group, "users");
        EXPECT_STREQ(req->acl.object, "demo");
        EXPECT_EQ(req->object, object->id);
        EXPECT_EQ(req->peer, 9000u);
        EXPECT_EQ(req->fd, -1);
        EXPECT_EQ(req->req_fd, -1);
        EXPECT_STREQ(name, "m");
        EXPECT_EQ(blob_len(msg), 0u);
        return int{UBUS_STATUS_NOT_SUPPORTED};
    });
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
}

TEST_F(UbusObjects, ADeferredCallIsAnsweredOnlyWhenItIsCompleted) {
    static ubus_request_data kept;
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id) + call_of(11, "m") + call_of(12, "gone"));
        // The second is answered at once, the deferred one afterwards.
        EXPECT_EQ(client.receive().raw, wire::message(wire::status, 12, 9000,
                                                      wire::status_is(3) + wire::objid(object_id)));
        client.send(
            wire::message(wire::invoke, 14, 9000, wire::objid(object_id) + wire::method("m")));
        EXPECT_EQ(client.receive().number(1), 2u);
    });
    context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo(
        [](ubus_context* c, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
            ubus_defer_request(c, req, &kept);
            EXPECT_TRUE(req->deferred);
            EXPECT_FALSE(kept.deferred);
            EXPECT_EQ(kept.peer, req->peer);
            EXPECT_EQ(kept.fd, -1);
            return int{UBUS_STATUS_UNKNOWN_ERROR};
        });
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(kept.seq, 11);
}

} // namespace
