/// Requests of libubus: those that wait, those that do not, and how they meet.
#include "ubus_fixture.h"

#include <atomic>
#include <poll.h>
#include <string>

namespace {

using namespace ubus_tests;

using UbusRequests = ubus_test;

TEST_F(UbusRequests, AMessageThatIsNoneIsSentAsAnEmptyOne) {
    const scripted_bus bus([](wire::peer& client) {
        EXPECT_EQ(client.receive().raw,
                  wire::message(wire::invoke, 1, object_id,
                                wire::objid(object_id) + wire::method("m") + wire::data_of({})));
        EXPECT_EQ(client.receive().raw,
                  wire::message(wire::data, 0, 0, wire::objid(0) + wire::data_of({})));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_request request;
    EXPECT_EQ(ubus_invoke_async(ctx.get(), object_id, "m", nullptr, &request), 0);
    ubus_request_data call{};
    EXPECT_EQ(ubus_send_reply(ctx.get(), &call, nullptr), 0);
}

TEST_F(UbusRequests, OfTwoAttributesWithOneIdTheLastCounts) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        client.send(wire::message(wire::invoke, 13, 9000,
                                  wire::objid(object_id) + wire::method("other") +
                                      wire::method("m") + wire::data_of({})));
        EXPECT_EQ(client.receive().number(1), 0u);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo(answer_ok);
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
}

TEST_F(UbusRequests, OtherRequestsCallbacksRunInsideASynchronousOne) {
    const scripted_bus bus([](wire::peer& client) {
        const auto call = client.receive();
        const auto lookup = client.receive();
        client.send(wire::message(wire::data, call.seq(), call.peer(),
                                  wire::objid(object_id) + wire::data_of({})) +
                    status(call, 3) + wire::message(wire::data, lookup.seq(), 0, wire::objid(77)) +
                    status(lookup, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    static int depth_in_data = 0;
    ubus_request request;
    const buffer empty;
    ASSERT_EQ(ubus_invoke_async(ctx.get(), object_id, "m", empty.buf.head, &request), 0);
    request.data_cb = [](ubus_request* req, int, blob_attr*) {
        depth_in_data = req->ctx->stack_depth;
    };
    request.complete_cb = on_complete;
    ubus_complete_request_async(ctx.get(), &request);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), 0);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(depth_in_data, 1);
    EXPECT_EQ(completed, std::vector<int>{3});
    EXPECT_EQ(ctx->stack_depth, 0);
}

TEST_F(UbusRequests, CallsThatComeInDuringASynchronousRequestWaitForItsEnd) {
    static std::string order;
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto lookup = client.receive();
        client.send(call_of(1, "m") +
                    wire::message(wire::data, lookup.seq(), 0,
                                  wire::objpath("a") + wire::objid(7) + wire::objtype(8)) +
                    call_of(2, "m") + status(lookup, 0));
        for (const std::uint16_t seq : {std::uint16_t{1}, std::uint16_t{2}}) {
            const auto answer = client.receive();
            EXPECT_EQ(answer.type(), wire::status);
            EXPECT_EQ(answer.seq(), seq);
        }
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo([](ubus_context* c, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
        order += "call at depth " + std::to_string(c->stack_depth) + ", ";
        return 0;
    });
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    const auto found = [](ubus_context*, ubus_object_data*, void*) {
        order += "found, ";
    };
    EXPECT_EQ(ubus_lookup(ctx.get(), "a", found, nullptr), 0);
    EXPECT_EQ(order, "found, call at depth 1, call at depth 1, ");
    EXPECT_TRUE(list_empty(&ctx->pending));
}

TEST_F(UbusRequests, CallsThatComeInDuringAHandlersRequestWaitForTheOuterOne) {
    static std::string order;
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto outer = client.receive();
        client.send(call_of(1, "m") + status(outer, 0));
        const auto inner = client.receive();
        client.send(call_of(2, "n") + status(inner, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(
        [](ubus_context* c, ubus_object*, ubus_request_data*, const char* name, blob_attr*) {
            std::uint32_t id = 0;
            order += name;
            order += name[0] == 'm' && ubus_lookup_id(c, "b", &id) == 0 ? "(done)" : "";
            return 0;
        });
    demo.methods[0].name = nullptr;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "a", &id), 0);
    EXPECT_EQ(order, "m(done)n");
}

TEST_F(UbusRequests, InvokeRefusesWhatExceedsTheLimitAndSendsNothing) {
    const scripted_bus bus([](wire::peer& client) {
        const auto first = client.receive();
        EXPECT_EQ(first.type(), wire::invoke);
        EXPECT_EQ(first.raw.size(), 8u + limit);
        client.send(status(first, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    // Blob head, object id, method "m" and the heads of DATA and of the value around it.
    constexpr std::size_t around = 4 + 8 + 8 + 4 + 4;
    const auto attempt = [&ctx](std::size_t size) {
        const buffer args;
        blob_buf args_buf = args.buf;
        const std::vector<char> value(size);
        blob_put(&args_buf, 1, value.data(), static_cast<unsigned>(size));
        const int result =
            ubus_invoke(ctx.get(), 1, "m", args_buf.head, nullptr, nullptr, long_limit);
        const_cast<buffer&>(args).buf = args_buf;
        return result;
    };
    EXPECT_EQ(attempt(limit - around + 4), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(attempt(limit - around), 0);
}

TEST_F(UbusRequests, ACompletedRecordIsNotTouchedAnyMore) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(status(client.receive(), 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    auto* request = new ubus_request;
    start(ctx.get(), *request);
    request->complete_cb = [](ubus_request* req, int) {
        delete req;
        uloop_end();
    };
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_TRUE(list_empty(&ctx->requests));
}

TEST_F(UbusRequests, AnAbortedRequestIsSilent) {
    const scripted_bus bus([](wire::peer& client) {
        const auto first = client.receive();
        const auto second = client.receive();
        client.send(status(first, 0) + status(second, 5));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_request first;
    ubus_request second;
    start(ctx.get(), first);
    ubus_abort_request(ctx.get(), &first);
    ubus_abort_request(ctx.get(), &first);
    start(ctx.get(), second);
    second.complete_cb = [](ubus_request*, int status) {
        completed.push_back(status);
        uloop_end();
    };
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(completed, std::vector<int>{5});
}

TEST_F(UbusRequests, AbortingARecordThatWasNeverStartedIsACrash) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    EXPECT_DEATH(
        {
            ubus_request never{};
            ubus_abort_request(ctx.get(), &never);
        },
        "");
}

TEST_F(UbusRequests, TheNewestRequestStandsFirst) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_request requests[3];
    for (ubus_request& request : requests) {
        start(ctx.get(), request);
    }
    EXPECT_EQ(ctx->requests.next, &requests[2].list);
    EXPECT_EQ(ctx->requests.prev, &requests[0].list);
    for (ubus_request& request : requests) {
        ubus_abort_request(ctx.get(), &request);
    }
}

TEST_F(UbusRequests, SequenceNumbersStartOverAfter65535) {
    const scripted_bus bus([](wire::peer& client) {
        EXPECT_EQ(client.receive().seq(), 65535);
        EXPECT_EQ(client.receive().seq(), 0);
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->request_seq = 65534;
    ubus_request requests[2];
    for (ubus_request& request : requests) {
        start(ctx.get(), request);
        ubus_abort_request(ctx.get(), &request);
    }
}

TEST_F(UbusRequests, ASynchronousRequestWaitsAsLongAsTheDaemonIsHeld) {
    tarn::test::bus_daemon daemon;
    const context ctx(ubus_connect(nullptr));
    ASSERT_NE(ctx, nullptr);
    daemon.pause();
    std::atomic<bool> returned{false};
    std::thread caller([&ctx, &returned] {
        std::uint32_t id = 0;
        ubus_lookup_id(ctx.get(), "demo", &id);
        returned = true;
    });
    // Nothing can be read while the daemon is held, so this ends by its limit.
    pollfd answer{ctx->sock.fd, POLLIN, 0};
    EXPECT_EQ(::poll(&answer, 1, 300), 0);
    EXPECT_FALSE(returned);
    daemon.resume();
    caller.join();
    EXPECT_TRUE(returned);
}

TEST_F(UbusRequests, MessagesNobodyWaitsForArePassedOver) {
    const scripted_bus bus([](wire::peer& client) {
        const auto call = client.receive();
        client.send(wire::message(wire::status, 999, 0, wire::status_is(0)) +
                    wire::message(wire::data, call.seq(), call.peer(), {}) +
                    wire::message(wire::notify, 1, 2, {}) + wire::message(200, 1, 2, {}) +
                    wire::message(wire::invoke, 1, 2, {}) + wire::message(wire::hello, 0, 9, {}) +
                    wire::message(wire::status, call.seq(), call.peer(), {}) + status(call, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    const buffer empty;
    // A status without its number is an invalid argument; what follows finds no request.
    EXPECT_EQ(ubus_invoke(ctx.get(), object_id, "m", empty.buf.head, nullptr, nullptr, long_limit),
              UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(be32toh(ctx->local_id), own_id);
}

TEST_F(UbusRequests, SurvivesMessagesThatArriveByteByByte) {
    const scripted_bus bus([](wire::peer& client) {
        const auto call = client.receive();
        const wire::bytes answer = wire::message(wire::data, call.seq(), call.peer(),
                                                 wire::objid(object_id) + wire::data_of({})) +
                                   status(call, 0);
        for (const std::uint8_t byte : answer) {
            client.send(wire::bytes(1, byte));
        }
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    int replies = 0;
    const buffer empty;
    const auto count = [](ubus_request* req, int, blob_attr*) {
        ++*static_cast<int*>(req->priv);
    };
    EXPECT_EQ(ubus_invoke(ctx.get(), object_id, "m", empty.buf.head, count, &replies, long_limit),
              0);
    EXPECT_EQ(replies, 1);
}

TEST_F(UbusRequests, EveryStatusHasItsText) {
    EXPECT_STREQ(ubus_strerror(0), "Success");
    EXPECT_STREQ(ubus_strerror(4), "Not found");
    EXPECT_STREQ(ubus_strerror(13), "System error");
    EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

} // namespace
