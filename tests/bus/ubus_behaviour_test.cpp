/// What libubus does when things go wrong or come at an awkward moment. Whoever builds on it has to
/// be right under all of this, so the bundled library must really show it.
#include "ubus_fixture.h"

#include <atomic>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace ubus_tests;

using UbusBehaviour = ubus_test;

TEST_F(UbusBehaviour, ConnectingTakesTheDefaultSignalDispositionsAgain) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    uloop_init();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGCHLD, SIG_DFL);
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    EXPECT_NE(disposition(SIGINT), SIG_DFL);
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
    EXPECT_NE(disposition(SIGCHLD), SIG_DFL);
}

TEST_F(UbusBehaviour, AFailedConnectGivesNull) {
    EXPECT_EQ(ubus_connect("/nonexistent/sock"), nullptr);
    EXPECT_EQ(ubus_connect(("/" + std::string(200, 'x')).c_str()), nullptr);
}

TEST_F(UbusBehaviour, ConnectFailsWhenTheDaemonClosesBeforeAnyGreeting) {
    const wire::listening place;
    std::thread bus([&place] { place.accept(); });
    EXPECT_EQ(ubus_connect(place.path().c_str()), nullptr);
    bus.join();
}

TEST_F(UbusBehaviour, ConnectFailsWhenTheGreetingIsCutShortOrSomethingElse) {
    const wire::bytes hello = wire::message(wire::hello, 0, own_id, {});
    wire::bytes other_version = hello;
    other_version[0] = 1;
    for (const wire::bytes& greeting :
         {wire::bytes(hello.begin(), hello.begin() + 5),
          wire::bytes(hello.begin(), hello.end() - 1), wire::message(wire::status, 0, own_id, {}),
          wire::message(wire::hello, 0, 0, {}), other_version, wire::bytes(64, 0xff)}) {
        const wire::listening place;
        std::thread bus([&place, &greeting] { place.accept().send(greeting); });
        EXPECT_EQ(ubus_connect(place.path().c_str()), nullptr) << wire::hex(greeting);
        bus.join();
    }
}

TEST_F(UbusBehaviour, ConnectFailsWhenTheGreetingComesInPieces) {
    const wire::bytes hello = wire::message(wire::hello, 0, own_id, wire::objpath("a path"));
    for (const std::ptrdiff_t first : {1, 8, 11, 16}) {
        const wire::listening place;
        std::thread bus([&] {
            const wire::peer client = place.accept();
            client.send(wire::bytes(hello.begin(), hello.begin() + first));
            client.wait_for_end();
        });
        EXPECT_EQ(ubus_connect(place.path().c_str()), nullptr) << first;
        bus.join();
    }
}

TEST_F(UbusBehaviour, ConnectWaitsForWhatTheBlobOfTheGreetingHolds) {
    const wire::bytes hello = wire::message(wire::hello, 0, own_id, wire::objpath("a path"));
    const wire::listening place;
    std::thread bus([&] {
        const wire::peer client = place.accept();
        client.send(wire::bytes(hello.begin(), hello.begin() + 12));
        wait_until_read(client);
        client.send(wire::bytes(hello.begin() + 12, hello.end()));
        client.wait_for_end();
    });
    context ctx(ubus_connect(place.path().c_str()));
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(be32toh(ctx->local_id), own_id);
    ctx.reset();
    bus.join();
}

TEST_F(UbusBehaviour, AWriteToADaemonThatDiedRaisesSigpipe) {
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

TEST_F(UbusBehaviour, AFailedWriteIsToldByNothingUntilTheLoopReportsTheSocket) {
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

TEST_F(UbusBehaviour, NothingEndsAConnectionWhoseDaemonOnlyStopsReading) {
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

TEST_F(UbusBehaviour, ARemovalThatIsAnsweredWithoutDataLeavesTheObject) {
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

TEST_F(UbusBehaviour, ARemovalThatFailsAfterItsDataHasTakenTheObjectOut) {
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

TEST_F(UbusBehaviour, APublicationThatIsAnsweredWithoutAnIdHasNoData) {
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

TEST_F(UbusBehaviour, APublicationThatFailsAfterItsDataHasEnteredTheObject) {
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

TEST_F(UbusBehaviour, ASecondObjectWithAnIdInUseIsNotEntered) {
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

TEST_F(UbusBehaviour, ALookupTellsOnlyOfObjectsWithAPathAndAType) {
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

TEST_F(UbusBehaviour, AMessageThatIsNoneIsSentAsAnEmptyOne) {
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

TEST_F(UbusBehaviour, AnObjectWithoutATypeIsPublishedWithoutItsName) {
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

TEST_F(UbusBehaviour, AMethodWithoutANameTakesEveryCall) {
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

TEST_F(UbusBehaviour, ACallWithoutAnObjectHereOrAMethodIsAnsweredToNobody) {
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

TEST_F(UbusBehaviour, ACallThatWantsNoReplyHearsOnlyThatItCannotBeHandled) {
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

TEST_F(UbusBehaviour, OfTwoAttributesWithOneIdTheLastCounts) {
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

TEST_F(UbusBehaviour, AFailedWriteSetsEofAndFailsEveryRequest) {
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

TEST_F(UbusBehaviour, OtherRequestsCallbacksRunInsideASynchronousOne) {
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

TEST_F(UbusBehaviour, CallsThatComeInDuringASynchronousRequestWaitForItsEnd) {
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

TEST_F(UbusBehaviour, CallsThatComeInDuringAHandlersRequestWaitForTheOuterOne) {
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

TEST_F(UbusBehaviour, AConnectionThatEndsInsideASynchronousRequestGivesConnectionFailed) {
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

TEST_F(UbusBehaviour, AnEndingConnectionFirstCompletesEveryRequestWithTimeout) {
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

TEST_F(UbusBehaviour, OneRequestMayAbortAnotherWhileTheConnectionEnds) {
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

TEST_F(UbusBehaviour, TheContextMayBeFreedWhenTheLoopReportsTheEnd) {
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

TEST_F(UbusBehaviour, WhatArrivedBeforeTheEndIsHandledFirst) {
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

TEST_F(UbusBehaviour, ByDefaultAConnectionThatIsClosedInOneDirectionEndsTheLoop) {
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

TEST_F(UbusBehaviour, ByDefaultAConnectionThatIsClosedInBothLeavesTheLoopRunning) {
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

TEST_F(UbusBehaviour, InvokeRefusesWhatExceedsTheLimitAndSendsNothing) {
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

TEST_F(UbusBehaviour, AReplyAboveTheLimitIsSentAndCostsTheConnection) {
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

TEST_F(UbusBehaviour, ACompletedRecordIsNotTouchedAnyMore) {
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

TEST_F(UbusBehaviour, AnAbortedRequestIsSilent) {
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

TEST_F(UbusBehaviour, AbortingARecordThatWasNeverStartedIsACrash) {
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

TEST_F(UbusBehaviour, TheNewestRequestStandsFirst) {
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

TEST_F(UbusBehaviour, SequenceNumbersStartOverAfter65535) {
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

TEST_F(UbusBehaviour, WritesWaitForADaemonThatDoesNotRead) {
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

TEST_F(UbusBehaviour, FreeingAContextLeavesItsRequestsAlone) {
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

TEST_F(UbusBehaviour, TheLoopCollectsTheProgramsChildren) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    ::close(ends[1]);
    // uloop_run() returns for the timer only after the signal has been seen to.
    static uloop_timeout poll_child;
    static pid_t watched;
    watched = child;
    poll_child.cb = [](uloop_timeout* timer) {
        if (::kill(watched, 0) != 0) {
            uloop_end();
        } else {
            uloop_timeout_set(timer, 1);
        }
    };
    uloop_timeout_set(&poll_child, 1);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(::waitpid(child, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    ::close(ends[0]);
}

TEST_F(UbusBehaviour, ACallToAServiceThatDiesIsNeverAnswered) {
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

TEST_F(UbusBehaviour, ALookupWithoutDataLeavesTheIdAsItWas) {
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

TEST_F(UbusBehaviour, ATakenNameIsAnInvalidArgument) {
    const tarn::test::bus_daemon daemon;
    const context first(ubus_connect(nullptr));
    const context second(ubus_connect(nullptr));
    published mine(answer_ok);
    published theirs(answer_ok);
    EXPECT_EQ(ubus_add_object(first.get(), &mine.object), 0);
    EXPECT_EQ(ubus_add_object(second.get(), &theirs.object), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(UbusBehaviour, ASynchronousRequestWaitsAsLongAsTheDaemonIsHeld) {
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

TEST_F(UbusBehaviour, AHandlerSeesWhoCallsAndItsResultIsTheStatus) {
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

TEST_F(UbusBehaviour, ADeferredCallIsAnsweredOnlyWhenItIsCompleted) {
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

TEST_F(UbusBehaviour, MessagesNobodyWaitsForArePassedOver) {
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

TEST_F(UbusBehaviour, SurvivesMessagesThatArriveByteByByte) {
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

TEST_F(UbusBehaviour, EveryStatusHasItsText) {
    EXPECT_STREQ(ubus_strerror(0), "Success");
    EXPECT_STREQ(ubus_strerror(4), "Not found");
    EXPECT_STREQ(ubus_strerror(13), "System error");
    EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

} // namespace
