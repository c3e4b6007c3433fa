/// What libubus does when things go wrong or come at an awkward moment. Whoever builds on it has to
/// be right under all of this, so the bundled library must really show it.
#include <libubus.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/allocations.h"
#include "support/bus_daemon.h"
#include "support/wire.h"

namespace {

constexpr std::uint32_t own_id = 5000;
constexpr std::uint32_t object_id = 6000;
constexpr int long_limit = 20000;

// A daemon in the test's hands: what it does with the one client runs on a thread of its own.
class scripted_bus {
public:
    explicit scripted_bus(std::function<void(wire::peer&)> script)
        : thread_([this, script = std::move(script)] {
            try {
                wire::peer client = listening_.accept();
                client.send(wire::message(wire::hello, 0, own_id, {}));
                script(client);
            } catch (const std::exception& error) {
                ADD_FAILURE() << "the bus: " << error.what();
            }
        }) {}
    ~scripted_bus() { join(); }

    const char* path() const { return listening_.path().c_str(); }
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    wire::listening listening_;
    std::thread thread_;
};

struct freed {
    void operator()(ubus_context* ctx) const { ubus_free(ctx); }
};
using context = std::unique_ptr<ubus_context, freed>;

struct buffer {
    buffer() { blob_buf_init(&buf, 0); }
    ~buffer() { blob_buf_free(&buf); }
    blob_buf buf{};
};

wire::bytes status(const wire::received& request, std::uint32_t value) {
    return wire::message(wire::status, request.seq(), request.peer(), wire::status_is(value));
}

wire::bytes added(const wire::received& request, std::uint32_t id) {
    return wire::message(wire::data, request.seq(), request.peer(),
                         wire::objid(id) + wire::objtype(7000)) +
           status(request, 0);
}

wire::bytes call_of(std::uint16_t seq, const std::string& name) {
    return wire::message(wire::invoke, seq, 9000,
                         wire::objid(object_id) + wire::method(name) + wire::text(12, "joe") +
                             wire::text(13, "users") + wire::data_of({}));
}

ubus_method method(const char* name, ubus_handler_t handler) {
    ubus_method made{};
    made.name = name;
    made.handler = handler;
    return made;
}

// A published object with one method "m".
struct published {
    explicit published(ubus_handler_t handler)
        : methods{method("m", handler)} {
        type.name = object.name = "demo";
        type.methods = object.methods = methods;
        type.n_methods = object.n_methods = 1;
        object.type = &type;
    }
    ubus_method methods[1];
    ubus_object_type type{};
    ubus_object object{};
};

struct seen_end {
    int times = 0;
    int stack_depth = -1;
    bool eof = false;
    std::vector<int> completed_before;
};
seen_end lost;
std::vector<int> completed;

void on_lost(ubus_context* ctx) {
    ++lost.times;
    lost.stack_depth = ctx->stack_depth;
    lost.eof = ctx->sock.eof;
    lost.completed_before = completed;
    uloop_fd_delete(&ctx->sock);
    uloop_end();
}

void on_complete(ubus_request*, int status) {
    completed.push_back(status);
}

int answer_ok(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    return 0;
}

sighandler_t disposition(int signal) {
    struct sigaction now {};
    sigaction(signal, nullptr, &now);
    return now.sa_handler;
}

class UbusBehaviour : public testing::Test {
protected:
    void SetUp() override {
        lost = {};
        completed.clear();
    }
    void TearDown() override { uloop_done(); }

    static void start(ubus_context* ctx, ubus_request& request) {
        const buffer empty;
        ASSERT_EQ(ubus_invoke_async(ctx, object_id, "m", empty.buf.head, &request), 0);
        request.complete_cb = on_complete;
        ubus_complete_request_async(ctx, &request);
    }
};

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

TEST_F(UbusBehaviour, ConnectWaitsForAGreetingThatComesInPieces) {
    const wire::listening place;
    std::thread bus([&place] {
        const wire::peer client = place.accept();
        for (const std::uint8_t byte : wire::message(wire::hello, 0, own_id, {})) {
            client.send(wire::bytes(1, byte));
        }
        client.wait_for_end();
    });
    context ctx(ubus_connect(place.path().c_str()));
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->local_id, own_id);
    ctx.reset();
    bus.join();
}

TEST_F(UbusBehaviour, TheEnvironmentNamesTheDefaultSocket) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    ::setenv("UBUS_SOCKET", bus.path(), 1);
    const context ctx(ubus_connect(nullptr));
    EXPECT_NE(ctx, nullptr);
    ::unsetenv("UBUS_SOCKET");
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
    std::signal(SIGPIPE, SIG_DFL);
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

TEST_F(UbusBehaviour, CallsThatComeInDuringASynchronousRequestWaitForTheLoop) {
    static std::vector<int> depths;
    scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto lookup = client.receive();
        client.send(call_of(1, "m") + call_of(2, "m") + status(lookup, 4));
        for (const std::uint16_t seq : {std::uint16_t{1}, std::uint16_t{2}}) {
            const auto answer = client.receive();
            EXPECT_EQ(answer.type(), wire::status);
            EXPECT_EQ(answer.seq(), seq);
        }
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    published demo([](ubus_context* c, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
        depths.push_back(c->stack_depth);
        return 0;
    });
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "demo", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_TRUE(depths.empty());
    EXPECT_FALSE(list_empty(&ctx->pending));
    EXPECT_TRUE(ctx->pending_timer.pending);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(depths, (std::vector<int>{0, 0}));
}

TEST_F(UbusBehaviour, ACallThatThereIsNoMemoryToKeepIsRefused) {
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

TEST_F(UbusBehaviour, EverySingleShortageOfMemoryShowsAsAnError) {
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

TEST_F(UbusBehaviour, AnEndInsideAHandlersRequestIsReportedOnce) {
    static int result = -1;
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id) + call_of(1, "m"));
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
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(result, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(lost.times, 1);
    EXPECT_EQ(lost.stack_depth, 1);
}

TEST_F(UbusBehaviour, ByDefaultALostConnectionEndsTheLoop) {
    const scripted_bus bus([](wire::peer&) {});
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_add_uloop(ctx.get());
    EXPECT_EQ(uloop_run(), 0);
}

TEST_F(UbusBehaviour, InvokeRefusesWhatExceedsTheLimitAndSendsNothing) {
    const scripted_bus bus([](wire::peer& client) {
        const auto first = client.receive();
        EXPECT_EQ(first.type(), wire::invoke);
        EXPECT_EQ(first.raw.size(), 8u + UBUS_MAX_MSGLEN);
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
    EXPECT_EQ(attempt(UBUS_MAX_MSGLEN - around + 4), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(attempt(UBUS_MAX_MSGLEN - around), 0);
}

TEST_F(UbusBehaviour, AReplyAboveTheLimitIsSentAndCostsTheConnection) {
    const tarn::test::bus_daemon daemon;
    const context ctx(ubus_connect(nullptr));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    buffer reply;
    const std::vector<char> value(UBUS_MAX_MSGLEN);
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
    published demo([](ubus_context*, ubus_object* object, ubus_request_data* req, const char* name,
                      blob_attr* msg) {
        EXPECT_STREQ(req->acl.user, "joe");
        EXPECT_STREQ(req->acl.group, "users");
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
        client.send(wire::message(wire::invoke, 13, 9000, wire::objid(1) + wire::method("m")));
        EXPECT_EQ(client.receive().number(1), 4u);
        client.send(
            wire::message(wire::invoke, 14, 9000, wire::objid(object_id) + wire::method("m")));
        EXPECT_EQ(client.receive().number(1), 2u);
    });
    context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    published demo(
        [](ubus_context* c, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
            ubus_defer_request(c, req, &kept);
            EXPECT_TRUE(req->deferred);
            EXPECT_EQ(kept.acl.user, nullptr);
            EXPECT_EQ(kept.fd, -1);
            return int{UBUS_STATUS_UNKNOWN_ERROR};
        });
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(kept.seq, 11);
}

TEST_F(UbusBehaviour, BytesThatAreNoMessageEndTheConnection) {
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
    EXPECT_EQ(ctx->local_id, own_id);
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

TEST_F(UbusBehaviour, DescriptorsCannotBePassed) {
    const scripted_bus bus([](wire::peer& client) { client.wait_for_end(); });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ubus_request request;
    const buffer empty;
    EXPECT_EQ(ubus_invoke_async_fd(ctx.get(), 1, "m", empty.buf.head, &request, 0),
              UBUS_STATUS_NOT_SUPPORTED);
}

TEST_F(UbusBehaviour, EveryStatusHasItsText) {
    EXPECT_STREQ(ubus_strerror(0), "Success");
    EXPECT_STREQ(ubus_strerror(4), "Not found");
    EXPECT_STREQ(ubus_strerror(13), "System error");
    EXPECT_STREQ(ubus_strerror(14), "Unknown error");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error");
}

} // namespace
