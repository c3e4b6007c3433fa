/// How the end of a connection shows to the users of libubus, and when it does not show.
#include "ubus_fixture.h"

#include <atomic>
#include <future>
#include <poll.h>
#include <sys/socket.h>

namespace {

using namespace ubus_tests;

using UbusEnds = ubus_test;

TEST_F(UbusEnds, AWriteToADaemonThatDiedRaisesSigpipe) {
    static volatile std::sig_atomic_t raised = 0;
    scripted_bus bus([](wire::peer&) {});
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    bus.join();
    std::signal(SIGPIPE, [](int) { raised = 1; });
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(raised, 1);
    // Again when the end has been told.
    ctx->connection_lost = on_lost;
    ubus_handle_event(ctx.get());
    EXPECT_EQ(lost.times, 1);
    raised = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(raised, 1);
    std::signal(SIGPIPE, SIG_DFL);
}

TEST_F(UbusEnds, AFailedWriteIsToldByNothingUntilTheLoopReportsTheSocket) {
    std::promise<void> seen;
    scripted_bus bus([&seen](wire::peer& client) {
        ::shutdown(client.fd(), SHUT_RD);
        client.send(wire::message(wire::hello, 0, 1, {}));
        seen.get_future().wait();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    ctx->connection_lost = on_lost;
    // It has stopped reading before it says anything further.
    pollfd readable{ctx->sock.fd, POLLIN, 0};
    ASSERT_EQ(::poll(&readable, 1, long_limit), 1);
    ubus_add_uloop(ctx.get());
    ubus_request_data call{};
    const buffer empty;
    EXPECT_EQ(ubus_send_reply(ctx.get(), &call, empty.buf.head), UBUS_STATUS_NO_DATA);
    EXPECT_TRUE(ctx->sock.eof);
    EXPECT_EQ(lost.times, 0);
    ubus_handle_event(ctx.get());
    EXPECT_EQ(lost.times, 1);
    seen.set_value();
    bus.join();
}

TEST_F(UbusEnds, NothingEndsAConnectionWhoseDaemonOnlyStopsReading) {
    std::promise<void> seen;
    scripted_bus bus([&seen](wire::peer& client) {
        const auto lookup = client.receive();
        ::shutdown(client.fd(), SHUT_RD);
        client.send(status(lookup, 4));
        seen.get_future().wait();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    ctx->connection_lost = on_lost;
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_NOT_FOUND);
    ubus_add_uloop(ctx.get());
    const buffer empty;
    ubus_request_data call{};
    EXPECT_EQ(ubus_send_reply(ctx.get(), &call, empty.buf.head), UBUS_STATUS_NO_DATA);
    for (int i = 0; i < 3; ++i) {
        uloop_run_timeout(0);
    }
    EXPECT_EQ(lost.times, 0);
    seen.set_value();
    bus.join();
}

TEST_F(UbusEnds, AFailedWriteSetsEofAndFailsEveryRequest) {
    scripted_bus bus([](wire::peer&) {});
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    bus.join();
    EXPECT_FALSE(ctx->sock.eof);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(ctx->sock.eof);
    published demo(answer_ok);
    EXPECT_EQ(ubus_add_object(ctx.get(), &demo.object), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(ubus_remove_object(ctx.get(), &demo.object), UBUS_STATUS_INVALID_ARGUMENT);
    const buffer empty;
    ubus_request request;
    EXPECT_EQ(ubus_invoke_async(ctx.get(), 1, "m", empty.buf.head, &request),
              UBUS_STATUS_INVALID_ARGUMENT);
    ubus_request_data call{};
    EXPECT_EQ(ubus_send_reply(ctx.get(), &call, empty.buf.head), UBUS_STATUS_NO_DATA);
}

TEST_F(UbusEnds, AConnectionThatEndsInsideASynchronousRequestGivesConnectionFailed) {
    const scripted_bus bus([](wire::peer& client) { client.receive(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    ubus_add_uloop(ctx.get());
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(lost.times, 1);
    EXPECT_EQ(lost.stack_depth, 1);
    EXPECT_TRUE(lost.eof);
    EXPECT_EQ(ctx->stack_depth, 0);
}

TEST_F(UbusEnds, AnEndingConnectionFirstCompletesEveryRequestWithTimeout) {
    const scripted_bus bus([](wire::peer& client) {
        for (int i = 0; i < 3; ++i) {
            client.receive();
        }
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    ubus_request requests[3];
    for (ubus_request& request : requests) {
        start(ctx.get(), request);
    }
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(lost.times, 1);
    EXPECT_EQ(lost.stack_depth, 0);
    EXPECT_EQ(lost.completed_before, (std::vector<int>{7, 7, 7}));
    EXPECT_TRUE(list_empty(&ctx->requests));
    for (ubus_request& request : requests) {
        EXPECT_TRUE(list_empty(&request.list));
        EXPECT_TRUE(request.status_msg);
    }
}

TEST_F(UbusEnds, OneRequestMayAbortAnotherWhileTheConnectionEnds) {
    const scripted_bus bus([](wire::peer& client) {
        client.receive();
        client.receive();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    static ubus_request first;
    static ubus_request second;
    start(ctx.get(), first);
    start(ctx.get(), second);
    second.complete_cb = [](ubus_request* req, int status) {
        completed.push_back(status);
        ubus_abort_request(req->ctx, &first);
    };
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(completed, std::vector<int>{7});
    EXPECT_EQ(lost.times, 1);
}

TEST_F(UbusEnds, TheContextMayBeFreedWhenTheLoopReportsTheEnd) {
    const scripted_bus bus([](wire::peer&) {});
    ubus_context* ctx = ubus_connect(bus.path());
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = [](ubus_context* ended) {
        uloop_fd_delete(&ended->sock);
        ubus_free(ended);
        ++lost.times;
        uloop_end();
    };
    ubus_add_uloop(ctx);
    uloop_run();
    EXPECT_EQ(lost.times, 1);
}

TEST_F(UbusEnds, WhatArrivedBeforeTheEndIsHandledFirst) {
    const scripted_bus bus([](wire::peer& client) {
        const auto call = client.receive();
        client.send(status(call, 6));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    ubus_request request;
    start(ctx.get(), request);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(lost.completed_before, std::vector<int>{6});
}

TEST_F(UbusEnds, ByDefaultAConnectionThatIsClosedInOneDirectionEndsTheLoop) {
    const scripted_bus bus([](wire::peer& client) {
        ::shutdown(client.fd(), SHUT_WR);
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_add_uloop(ctx.get());
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(UbusEnds, ByDefaultAConnectionThatIsClosedInBothLeavesTheLoopRunning) {
    scripted_bus bus([](wire::peer&) {});
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    bus.join();
    ubus_add_uloop(ctx.get());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(uloop_run_timeout(0), 0);
    }
    EXPECT_TRUE(ctx->sock.eof);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_FALSE(uloop_cancelled);
}

TEST_F(UbusEnds, WritesWaitForADaemonThatDoesNotRead) {
    constexpr int messages = 20;
    constexpr std::size_t size = 200000;
    std::atomic<bool> reading{false};
    const scripted_bus bus([&reading](wire::peer& client) {
        // The first byte of the flood is here; the rest cannot fit into the socket.
        client.receive_bytes(1);
        reading = true;
        client.receive_bytes(messages * (8 + 4 + 8 + 4 + 4 + size) - 1);
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    buffer reply;
    const std::vector<char> value(size);
    blob_put(&reply.buf, 1, value.data(), static_cast<unsigned>(size));
    ubus_request_data call{};
    for (int i = 0; i < messages; ++i) {
        ASSERT_EQ(ubus_send_reply(ctx.get(), &call, reply.buf.head), 0);
    }
    EXPECT_TRUE(reading);
}

TEST_F(UbusEnds, FreeingAContextLeavesItsRequestsAlone) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    ubus_context* ctx = ubus_connect(bus.path());
    ASSERT_NE(ctx, nullptr);
    ubus_request request;
    start(ctx, request);
    const list_head* const neighbour = request.list.next;
    EXPECT_EQ(neighbour, &ctx->requests);
    ubus_free(ctx);
    EXPECT_EQ(request.list.next, neighbour);
    EXPECT_FALSE(request.status_msg);
    EXPECT_TRUE(completed.empty());
}

TEST_F(UbusEnds, ACallToAServiceThatDiesIsNeverAnswered) {
    const tarn::test::bus_daemon daemon;
    wire::peer service(daemon.connect());
    service.receive();
    service.send(
        wire::message(wire::add_object, 1, 0, wire::objpath("demo") + wire::one_method("m")));
    const std::uint32_t id = service.receive().number(3);
    service.receive();
    const context ctx(ubus_connect(nullptr));
    ASSERT_NE(ctx, nullptr);
    ubus_request request;
    const buffer empty;
    ASSERT_EQ(ubus_invoke_async(ctx.get(), id, "m", empty.buf.head, &request), 0);
    EXPECT_EQ(service.receive().type(), wire::invoke);
    service.close();
    EXPECT_EQ(ubus_complete_request(ctx.get(), &request, 200), UBUS_STATUS_TIMEOUT);
}

} // namespace
