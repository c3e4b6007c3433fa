/// When libubus hands out what came in while a synchronous request was under way: in the loop after
/// that request, outside of the loop inside of it. What is built on libubus must expect both.
#include "ubus_fixture.h"

#include <poll.h>
#include <utility>

namespace {

using namespace ubus_tests;

constexpr std::uint32_t target_id = 8000;

// What has happened, in order.
std::vector<std::string> seen;

using steps = std::vector<std::string>;

// A subscriber with a handler for every message that is kept.
struct observed {
    observed() {
        subscriber.cb = [](ubus_context* ctx, ubus_object*, ubus_request_data*, const char* name,
                           blob_attr*) {
            EXPECT_EQ(ctx->stack_depth, 1);
            seen.emplace_back(name);
            if (seen.back() == "ask") {
                std::uint32_t id = 0;
                seen.emplace_back(ubus_lookup_id(ctx, "other", &id) == 0 ? "asked" : "failed");
            }
            return 0;
        };
        subscriber.remove_cb = [](ubus_context* ctx, ubus_subscriber*, std::uint32_t) {
            EXPECT_EQ(ctx->stack_depth, 1);
            seen.emplace_back("target gone");
        };
        subscriber.obj.subscribe_cb = [](ubus_context* ctx, ubus_object*) {
            EXPECT_EQ(ctx->stack_depth, 1);
            seen.emplace_back("subscribed to");
        };
    }
    ubus_subscriber subscriber{};
};

std::pair<long long, long long> due(const uloop_timeout& timer) {
    return {timer.time.tv_sec, timer.time.tv_usec};
}

// The timer's callback of the library, while another stands in for it.
uloop_timeout_handler replaced;

void note_and_pass_on(uloop_timeout* timer) {
    const std::size_t before = seen.size();
    replaced(timer);
    if (seen.size() != before) {
        seen.emplace_back("by the callback");
        uloop_end();
    }
}

class UbusPending : public ubus_test {
protected:
    void SetUp() override {
        ubus_test::SetUp();
        seen.clear();
    }

    // Connects to a daemon that publishes the subscriber and then goes by `script`.
    void connect(std::function<void(wire::peer&)> script) {
        bus_ = std::make_unique<scripted_bus>([script = std::move(script)](wire::peer& client) {
            const auto adding = client.receive();
            client.send(wire::message(wire::data, adding.seq(), 0, wire::objid(object_id)) +
                        status(adding, 0));
            script(client);
        });
        ctx_.reset(ubus_connect(bus_->path()));
        ASSERT_NE(ctx_, nullptr);
        ctx_->connection_lost = [](ubus_context* ctx) {
            seen.emplace_back("lost");
            uloop_fd_delete(&ctx->sock);
            uloop_end();
        };
        ASSERT_EQ(ubus_register_subscriber(ctx_.get(), &own_.subscriber), 0);
        replaced = std::exchange(ctx_->pending_timer.cb, note_and_pass_on);
    }

    void TearDown() override {
        ctx_.reset(); // before the daemon, which waits for the end
        bus_.reset();
        ubus_test::TearDown();
    }

    int look_up() {
        std::uint32_t id = 0;
        const int result = ubus_lookup_id(ctx_.get(), "other", &id);
        seen.emplace_back("returned");
        return result;
    }

    void start_other() {
        start(ctx_.get(), other_);
        other_.complete_cb = [](ubus_request*, int) {
            seen.emplace_back("completed");
        };
    }

    // Without the loop, and so without its timers.
    void serve_socket() {
        pollfd readable{ctx_->sock.fd, POLLIN, 0};
        ASSERT_EQ(::poll(&readable, 1, long_limit), 1);
        ubus_handle_event(ctx_.get());
    }

    std::unique_ptr<scripted_bus> bus_;
    context ctx_;
    observed own_;
    ubus_request other_{};
};

wire::bytes end_of_target() {
    return wire::message(wire::unsubscribe, 1, 0, wire::objid(object_id) + wire::u32(8, target_id));
}

wire::bytes first_subscriber() {
    return wire::message(wire::notify, 1, 0, wire::objid(object_id) + wire::nested(9, {1}));
}

// One of each message that is kept.
wire::bytes news() {
    return call_of(1, "called") + end_of_target() + first_subscriber();
}

// A daemon's part: they come ahead of the answer to a request.
void answer_behind_news(wire::peer& client) {
    const auto request = client.receive();
    client.send(news() + status(request, 0));
    client.wait_for_end();
}

TEST_F(UbusPending, InTheLoopARequestReturnsBeforeWhatItHasKeptIsHandedOut) {
    ASSERT_NO_FATAL_FAILURE(connect(answer_behind_news));
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(seen, steps{"returned"});
    EXPECT_FALSE(list_empty(&ctx_->pending));
    EXPECT_TRUE(ctx_->pending_timer.pending);
    uloop_timeout later{};
    uloop_timeout_set(&later, 1);
    EXPECT_LE(due(ctx_->pending_timer), due(later));
    uloop_timeout_cancel(&later);
    uloop_run(); // The socket has nothing: it is the timer that ends this.
    EXPECT_EQ(seen,
              (steps{"returned", "called", "target gone", "subscribed to", "by the callback"}));
    EXPECT_FALSE(ctx_->pending_timer.pending);
}

TEST_F(UbusPending, OutsideOfTheLoopARequestHandsOutWhatItHasKeptAtItsEnd) {
    ASSERT_NO_FATAL_FAILURE(connect(answer_behind_news));
    ubus_request request;
    const buffer empty;
    ASSERT_EQ(ubus_invoke_async(ctx_.get(), object_id, "m", empty.buf.head, &request), 0);
    request.complete_cb = [](ubus_request* req, int) {
        seen.emplace_back("completed");
        EXPECT_FALSE(req->ctx->pending_timer.pending);
    };
    EXPECT_EQ(ubus_complete_request(ctx_.get(), &request, long_limit), 0);
    EXPECT_EQ(seen,
              (steps{"completed", "called", "target gone", "subscribed to", "by the callback"}));
    EXPECT_TRUE(list_empty(&ctx_->pending));
}

TEST_F(UbusPending, TheSocketHandsOutWhatWasKeptBeforeItReads) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        const auto request = client.receive();
        client.send(news() + status(request, 0) + call_of(2, "later"));
        client.wait_for_end();
    }));
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(seen, steps{"returned"});
    ASSERT_NO_FATAL_FAILURE(serve_socket());
    EXPECT_EQ(seen, (steps{"returned", "called", "target gone", "subscribed to", "by the callback",
                           "later"}));
}

TEST_F(UbusPending, AnAnswerBehindTheEndOfARequestComesAfterWhatWasKept) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        const auto other = client.receive();
        const auto request = client.receive();
        client.send(call_of(1, "called") + status(request, 0) + status(other, 0));
        client.wait_for_end();
    }));
    ubus_add_uloop(ctx_.get());
    start_other();
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(seen, steps{"returned"});
    ASSERT_NO_FATAL_FAILURE(serve_socket());
    EXPECT_EQ(seen, (steps{"returned", "called", "by the callback", "completed"}));
}

TEST_F(UbusPending, WhatAHandlersRequestHasKeptPrecedesTheNextMessage) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        const auto other = client.receive();
        client.send(call_of(1, "ask"));
        const auto request = client.receive();
        client.send(call_of(2, "called") + status(request, 0) + status(other, 0));
        client.wait_for_end();
    }));
    ubus_add_uloop(ctx_.get());
    start_other();
    // It may be left to another turn what has come since the socket was reported.
    while (seen.empty() || seen.back() != "completed") {
        ASSERT_NO_FATAL_FAILURE(serve_socket());
    }
    EXPECT_EQ(seen, (steps{"ask", "asked", "called", "by the callback", "completed"}));
}

TEST_F(UbusPending, WhatTheLastHandlersRequestHasKeptIsHandedOutByTheSocketToo) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        client.send(call_of(1, "ask"));
        const auto request = client.receive();
        client.send(call_of(2, "called") + status(request, 0));
        client.wait_for_end();
    }));
    ubus_add_uloop(ctx_.get());
    ASSERT_NO_FATAL_FAILURE(serve_socket());
    EXPECT_EQ(seen, (steps{"ask", "asked", "called", "by the callback"}));
}

TEST_F(UbusPending, AHandlersRequestHandsOutNothingEvenOutsideOfTheLoop) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        client.send(call_of(1, "ask"));
        const auto request = client.receive();
        client.send(call_of(2, "called") + status(request, 0));
        client.wait_for_end();
    }));
    ASSERT_NO_FATAL_FAILURE(serve_socket());
    EXPECT_EQ(seen, (steps{"ask", "asked", "called", "by the callback"}));
}

TEST_F(UbusPending, InsideOfARequestTheTimersCallbackDoesNothing) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        const auto request = client.receive();
        client.send(call_of(1, "called") +
                    wire::message(wire::data, request.seq(), 0,
                                  wire::objpath("p") + wire::objid(7) + wire::objtype(8)) +
                    status(request, 0));
        client.wait_for_end();
    }));
    ubus_add_uloop(ctx_.get());
    const auto found = [](ubus_context* ctx, ubus_object_data*, void*) {
        ctx->pending_timer.cb(&ctx->pending_timer);
        EXPECT_FALSE(list_empty(&ctx->pending));
        seen.emplace_back("found");
    };
    EXPECT_EQ(ubus_lookup(ctx_.get(), "p", found, nullptr), 0);
    EXPECT_EQ(seen, steps{"found"});
    uloop_run();
    EXPECT_EQ(seen, (steps{"found", "called", "by the callback"}));
}

TEST_F(UbusPending, WhatIsKeptWhileItIsHandedOutComesLast) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        const auto outer = client.receive();
        client.send(call_of(1, "ask") + call_of(2, "second") + status(outer, 0));
        const auto inner = client.receive();
        client.send(call_of(3, "third") + status(inner, 0));
        client.wait_for_end();
    }));
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), 0);
    uloop_run();
    EXPECT_EQ(seen, (steps{"returned", "ask", "asked", "second", "third", "by the callback"}));
}

TEST_F(UbusPending, WhatWasKeptPrecedesTheReportOfTheEnd) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        const auto request = client.receive();
        client.send(news() + status(request, 0));
    }));
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), 0);
    bus_->join();
    ASSERT_NO_FATAL_FAILURE(serve_socket());
    EXPECT_EQ(seen, (steps{"returned", "called", "target gone", "subscribed to", "by the callback",
                           "lost"}));
}

TEST_F(UbusPending, WhatWasKeptPrecedesTheEndOfTheOtherRequests) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        client.receive();
        const auto request = client.receive();
        client.send(call_of(1, "called") + status(request, 0));
    }));
    ubus_add_uloop(ctx_.get());
    start_other();
    EXPECT_EQ(look_up(), 0);
    bus_->join();
    ASSERT_NO_FATAL_FAILURE(serve_socket());
    EXPECT_EQ(seen, (steps{"returned", "called", "by the callback", "completed", "lost"}));
}

TEST_F(UbusPending, WhatWasKeptIsHandedOutAtTheEndOfARequestThatTookTheSocketOutOfTheLoop) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        client.receive();
        client.send(news());
    }));
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(seen, (steps{"lost", "called", "target gone", "subscribed to", "by the callback",
                           "returned"}));
}

TEST_F(UbusPending, AnEndInARequestThatLeavesTheSocketInTheLoopKeepsWhatWasKept) {
    ASSERT_NO_FATAL_FAILURE(connect([](wire::peer& client) {
        client.receive();
        client.send(news());
    }));
    ctx_->connection_lost = [](ubus_context*) {
        seen.emplace_back("lost");
    };
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(seen, (steps{"lost", "returned"}));
    EXPECT_FALSE(list_empty(&ctx_->pending));
}

TEST_F(UbusPending, NothingIsHandedOutWhenTheContextIsGone) {
    ASSERT_NO_FATAL_FAILURE(connect(answer_behind_news));
    ubus_add_uloop(ctx_.get());
    EXPECT_EQ(look_up(), 0);
    ctx_->pending_timer.cb = [](uloop_timeout*) {
        seen.emplace_back("after the end");
    };
    ctx_.reset();
    uloop_timeout later{};
    later.cb = [](uloop_timeout*) {
        uloop_end();
    };
    uloop_timeout_set(&later, 2);
    uloop_run();
    EXPECT_EQ(seen, steps{"returned"});
}

} // namespace
