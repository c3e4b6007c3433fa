/// libubus's subscriptions and notifications, on the side of the subscriber and of the publisher.
#include "ubus_fixture.h"

#include <utility>

namespace {

using namespace ubus_tests;

using UbusSubscriber = ubus_test;
using UbusNotify = ubus_test;

constexpr std::uint32_t target_id = 8000;
constexpr std::uint32_t first_id = 7001;

std::vector<std::string> seen;

std::string named(const char* what, long long number) {
    return what + std::string(" ") + std::to_string(number);
}

// The daemon's part: takes an anonymous object.
void take_subscriber(wire::peer& client) {
    const auto adding = client.receive();
    EXPECT_EQ(adding.raw, wire::message(wire::add_object, adding.seq(), 0, {}));
    client.send(wire::message(wire::data, adding.seq(), 0, wire::objid(object_id)) +
                status(adding, 0));
}

wire::bytes lost_target(std::uint32_t subscriber, std::uint32_t target) {
    return wire::message(wire::unsubscribe, 1, 0, wire::objid(subscriber) + wire::u32(8, target));
}

wire::bytes activity(std::uint32_t object, std::uint8_t active) {
    return wire::message(wire::notify, 1, 0, wire::objid(object) + wire::nested(9, {active}));
}

struct subscribing_object {
    subscribing_object() {
        seen.clear();
        subscriber.cb = [](ubus_context*, ubus_object* object, ubus_request_data*, const char* name,
                           blob_attr*) {
            EXPECT_EQ(object->id, object_id);
            seen.emplace_back(name);
            return 5;
        };
        subscriber.remove_cb = [](ubus_context*, ubus_subscriber* sub, std::uint32_t id) {
            EXPECT_EQ(sub->obj.id, object_id);
            seen.push_back(named("lost", id));
        };
    }
    ubus_subscriber subscriber{};
};

TEST_F(UbusSubscriber, SubscribingNamesTheOwnObjectAndTheOther) {
    const scripted_bus bus([](wire::peer& client) {
        take_subscriber(client);
        const wire::bytes both = wire::objid(object_id) + wire::u32(8, target_id);
        const auto first = client.receive();
        EXPECT_EQ(first.raw, wire::message(wire::subscribe, 2, 0, both));
        client.send(status(first, 0));
        client.send(status(client.receive(), 4));
        const auto last = client.receive();
        EXPECT_EQ(last.raw, wire::message(wire::unsubscribe, 4, 0, both));
        client.send(status(last, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    subscribing_object own;
    ASSERT_EQ(ubus_register_subscriber(ctx.get(), &own.subscriber), 0);
    EXPECT_EQ(own.subscriber.obj.id, object_id);
    EXPECT_EQ(ubus_subscribe(ctx.get(), &own.subscriber, target_id), 0);
    EXPECT_EQ(ubus_subscribe(ctx.get(), &own.subscriber, target_id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_unsubscribe(ctx.get(), &own.subscriber, target_id), 0);
}

TEST_F(UbusSubscriber, ANotificationIsACallWhoseStatusIsTheHandlersResult) {
    const scripted_bus bus([](wire::peer& client) {
        take_subscriber(client);
        client.send(call_of(11, "up"));
        EXPECT_EQ(client.receive().raw, wire::message(wire::status, 11, 9000,
                                                      wire::status_is(5) + wire::objid(object_id)));
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    subscribing_object own;
    ASSERT_EQ(ubus_register_subscriber(ctx.get(), &own.subscriber), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(seen, std::vector<std::string>{"up"});
}

TEST_F(UbusSubscriber, WithoutAHandlerANotificationSucceeds) {
    const scripted_bus bus([](wire::peer& client) {
        take_subscriber(client);
        client.send(call_of(11, "up"));
        EXPECT_EQ(client.receive().number(1), 0u);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    ubus_subscriber subscriber{};
    ASSERT_EQ(ubus_register_subscriber(ctx.get(), &subscriber), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
}

TEST_F(UbusSubscriber, ANotificationThatWantsNoAnswerGetsNone) {
    const scripted_bus bus([](wire::peer& client) {
        take_subscriber(client);
        client.send(wire::message(wire::invoke, 11, 9000,
                                  wire::nested(10, {1}) + wire::objid(object_id) +
                                      wire::method("quiet") + wire::data_of({})) +
                    call_of(12, "loud"));
        EXPECT_EQ(client.receive().seq(), 12);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    subscribing_object own;
    ASSERT_EQ(ubus_register_subscriber(ctx.get(), &own.subscriber), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(seen, (std::vector<std::string>{"quiet", "loud"}));
}

TEST_F(UbusSubscriber, TheEndOfItsTargetIsReported) {
    const scripted_bus bus([](wire::peer& client) {
        take_subscriber(client);
        client.send(added(client.receive(), 6001));
        // Only what names a subscriber and a target is one.
        client.send(lost_target(6001, target_id) + lost_target(1, target_id) +
                    wire::message(wire::unsubscribe, 1, 0, wire::objid(object_id)) +
                    wire::message(wire::unsubscribe, 1, 0, wire::u32(8, target_id)) +
                    lost_target(object_id, target_id));
        wait_until_read(client);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    subscribing_object own;
    published other(answer_ok);
    ASSERT_EQ(ubus_register_subscriber(ctx.get(), &own.subscriber), 0);
    ASSERT_EQ(ubus_add_object(ctx.get(), &other.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(seen, std::vector<std::string>{named("lost", target_id)});
}

TEST_F(UbusSubscriber, WhatComesInDuringASynchronousRequestWaitsForItsEnd) {
    const scripted_bus bus([](wire::peer& client) {
        take_subscriber(client);
        const auto lookup = client.receive();
        client.send(lost_target(object_id, target_id) + call_of(1, "up") +
                    wire::message(wire::data, lookup.seq(), 0,
                                  wire::objpath("p") + wire::objid(7) + wire::objtype(8)) +
                    activity(object_id, 1) + lost_target(object_id, 2) + status(lookup, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    subscribing_object own;
    own.subscriber.obj.subscribe_cb = [](ubus_context*, ubus_object* object) {
        seen.push_back(named("active", object->has_subscribers ? 1 : 0));
    };
    ASSERT_EQ(ubus_register_subscriber(ctx.get(), &own.subscriber), 0);
    const auto found = [](ubus_context*, ubus_object_data*, void*) {
        seen.emplace_back("found");
    };
    EXPECT_EQ(ubus_lookup(ctx.get(), "p", found, nullptr), 0);
    EXPECT_EQ(seen, (std::vector<std::string>{"found", named("lost", target_id), "up",
                                              named("active", 1), named("lost", 2)}));
}

// --- the publisher's side ---

struct publishing_object : published {
    publishing_object()
        : published(answer_ok) {
        seen.clear();
        object.subscribe_cb = [](ubus_context*, ubus_object* changed) {
            seen.push_back(named("active", changed->has_subscribers ? 1 : 0));
        };
    }
};

// The answer of the daemon: who is subscribed.
wire::bytes subscribed(const wire::received& request, const std::vector<std::uint32_t>& ids) {
    wire::bytes list;
    for (const std::uint32_t id : ids) {
        list = list + wire::u32(0, id);
    }
    return wire::message(wire::status, request.seq(), request.peer(),
                         wire::objid(request.peer()) + wire::nested(11, list) + wire::status_is(0));
}

wire::bytes answer_of(const wire::received& request, std::uint32_t id, std::uint32_t value) {
    return wire::message(wire::status, request.seq(), id, wire::status_is(value) + wire::objid(id));
}

wire::bytes reply_of(const wire::received& request, std::uint32_t id) {
    return wire::message(wire::data, request.seq(), id, wire::objid(id) + wire::data_of({}));
}

void note_ends(ubus_notify_request& request) {
    request.status_cb = [](ubus_notify_request* req, int place, int status) {
        seen.push_back(named("id", req->id[place]) + named(" answers", status));
    };
    request.data_cb = [](ubus_notify_request*, int type, blob_attr* msg) {
        EXPECT_EQ(type, UBUS_MSG_DATA);
        EXPECT_NE(msg, nullptr);
        seen.emplace_back("reply");
    };
    request.complete_cb = [](ubus_notify_request*, int place, int status) {
        EXPECT_EQ(place, 0);
        EXPECT_EQ(status, 0);
        seen.emplace_back("complete");
        uloop_end();
    };
}

// Publishes and notifies once, and waits for the end of that; `script` is the daemon's part from
// the notification on.
void notify_once(std::function<void(wire::peer&, const wire::received&)> script) {
    const scripted_bus bus([script = std::move(script)](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        script(client, client.receive());
        if (client.fd() >= 0) {
            client.wait_for_end();
        }
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    publishing_object demo;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_notify_request request;
    const buffer empty;
    ASSERT_EQ(ubus_notify_async(ctx.get(), &demo.object, "up", empty.buf.head, &request), 0);
    note_ends(request);
    ubus_complete_request_async(ctx.get(), &request.req);
    ubus_add_uloop(ctx.get());
    uloop_run();
}

TEST_F(UbusNotify, TheFirstAndTheLastSubscriberAreReported) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        client.send(activity(object_id, 1) + activity(object_id, 0) + activity(1, 1) +
                    wire::message(wire::notify, 1, 0, wire::objid(object_id)) +
                    wire::message(wire::notify, 1, 0, wire::nested(9, {1})));
        wait_until_read(client);
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = on_lost;
    publishing_object demo;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(seen, (std::vector<std::string>{named("active", 1), named("active", 0)}));
}

TEST_F(UbusNotify, ANotificationThatWantsNoAnswersIsSentAndThatIsAll) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        EXPECT_EQ(client.receive().raw,
                  wire::message(wire::notify, 2, object_id,
                                wire::objid(object_id) + wire::method("up") + wire::data_of({}) +
                                    wire::nested(10, {1})));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    publishing_object demo;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    const buffer empty;
    EXPECT_EQ(ubus_notify(ctx.get(), &demo.object, "up", empty.buf.head, -1), 0);
    EXPECT_TRUE(list_empty(&ctx->requests));
}

TEST_F(UbusNotify, EverySubscribersEndIsReportedThenThatOfAll) {
    notify_once([](wire::peer& client, const wire::received& request) {
        EXPECT_EQ(request.raw,
                  wire::message(wire::notify, 2, object_id,
                                wire::objid(object_id) + wire::method("up") + wire::data_of({})));
        client.send(subscribed(request, {first_id, first_id + 1}));
        client.send(reply_of(request, first_id + 1) + answer_of(request, first_id + 1, 3) +
                    reply_of(request, first_id) + reply_of(request, first_id) +
                    answer_of(request, first_id, 0));
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"reply", "id 7002 answers 3", "reply", "reply",
                                              "id 7001 answers 0", "complete"}));
}

TEST_F(UbusNotify, WithoutSubscribersItIsCompleteAtOnce) {
    notify_once([](wire::peer& client, const wire::received& request) {
        client.send(subscribed(request, {}));
    });
    EXPECT_EQ(seen, std::vector<std::string>{"complete"});
}

TEST_F(UbusNotify, ARefusalByTheDaemonCompletesItToo) {
    notify_once(
        [](wire::peer& client, const wire::received& request) { client.send(status(request, 6)); });
    EXPECT_EQ(seen, std::vector<std::string>{"complete"});
}

TEST_F(UbusNotify, OneThatIsSubscribedTwiceAnswersTwice) {
    notify_once([](wire::peer& client, const wire::received& request) {
        client.send(subscribed(request, {first_id, first_id}));
        client.send(answer_of(request, first_id, 1) + answer_of(request, first_id, 2));
    });
    EXPECT_EQ(seen,
              (std::vector<std::string>{"id 7001 answers 1", "id 7001 answers 2", "complete"}));
}

TEST_F(UbusNotify, AnswersOfOthersAreNotHandedOver) {
    notify_once([](wire::peer& client, const wire::received& request) {
        client.send(reply_of(request, first_id) + answer_of(request, first_id, 1));
        client.send(subscribed(request, {first_id}));
        client.send(reply_of(request, first_id + 1) + answer_of(request, first_id + 1, 1) +
                    answer_of(request, first_id, 0) + answer_of(request, first_id, 0));
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"id 7001 answers 0", "complete"}));
}

TEST_F(UbusNotify, AnswersBeyondTheSixteenthSubscriberAreNotAwaited) {
    static_assert(UBUS_MAX_NOTIFY_PEERS == 16, "as the test counts");
    notify_once([](wire::peer& client, const wire::received& request) {
        std::vector<std::uint32_t> ids;
        wire::bytes answers;
        for (std::uint32_t i = 20; i > 0; --i) {
            ids.push_back(first_id + i);
            answers = answers + answer_of(request, first_id + i, i);
        }
        client.send(subscribed(request, ids) + answers);
    });
    ASSERT_EQ(seen.size(), 17u);
    EXPECT_EQ(seen.front(), "id 7021 answers 20");
    EXPECT_EQ(seen[15], "id 7006 answers 5");
    EXPECT_EQ(seen.back(), "complete");
}

TEST_F(UbusNotify, TheEndOfTheConnectionCompletesIt) {
    notify_once([](wire::peer& client, const wire::received& request) {
        client.send(subscribed(request, {first_id, first_id + 1}) +
                    answer_of(request, first_id, 0));
        wait_until_read(client);
        client.close();
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"id 7001 answers 0", "complete"}));
    EXPECT_EQ(lost.times, 1);
}

TEST_F(UbusNotify, AnAbortedOneIsSilent) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto request = client.receive();
        const auto lookup = client.receive();
        client.send(subscribed(request, {first_id}) + answer_of(request, first_id, 0) +
                    status(lookup, 4));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    publishing_object demo;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    ubus_notify_request request;
    const buffer empty;
    ASSERT_EQ(ubus_notify_async(ctx.get(), &demo.object, "up", empty.buf.head, &request), 0);
    note_ends(request);
    ubus_complete_request_async(ctx.get(), &request.req);
    ubus_abort_request(ctx.get(), &request.req);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "other", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_TRUE(seen.empty());
}

TEST_F(UbusNotify, TheSynchronousFormWaitsForAllOrForItsLimit) {
    const scripted_bus bus([](wire::peer& client) {
        client.send(added(client.receive(), object_id));
        const auto all = client.receive();
        client.send(subscribed(all, {first_id, first_id + 1}) + answer_of(all, first_id, 3) +
                    answer_of(all, first_id + 1, 4));
        client.send(status(client.receive(), 6));
        const auto some = client.receive();
        client.send(subscribed(some, {first_id, first_id + 1}) + answer_of(some, first_id, 0));
        client.wait_for_end();
    });
    const context ctx(ubus_connect(bus.path()));
    ASSERT_NE(ctx, nullptr);
    publishing_object demo;
    ASSERT_EQ(ubus_add_object(ctx.get(), &demo.object), 0);
    const buffer empty;
    EXPECT_EQ(ubus_notify(ctx.get(), &demo.object, "up", empty.buf.head, 0), 0);
    EXPECT_EQ(ubus_notify(ctx.get(), &demo.object, "up", empty.buf.head, 0), 0);
    EXPECT_EQ(ubus_notify(ctx.get(), &demo.object, "up", empty.buf.head, 100), UBUS_STATUS_TIMEOUT);
    EXPECT_TRUE(list_empty(&ctx->requests));
}

TEST_F(UbusNotify, SubscribersOfARealDaemonAnswerAndAreCounted) {
    const tarn::test::bus_daemon daemon;
    const context publisher(ubus_connect(nullptr));
    const context other(ubus_connect(nullptr));
    ASSERT_NE(publisher, nullptr);
    ASSERT_NE(other, nullptr);
    publishing_object demo;
    ASSERT_EQ(ubus_add_object(publisher.get(), &demo.object), 0);
    ubus_subscriber subscriber{};
    subscriber.cb = [](ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* name,
                       blob_attr* msg) {
        seen.emplace_back(name);
        ubus_send_reply(ctx, req, msg);
        return 0;
    };
    subscriber.remove_cb = [](ubus_context*, ubus_subscriber*, std::uint32_t) {
        seen.emplace_back("lost");
    };
    ASSERT_EQ(ubus_register_subscriber(other.get(), &subscriber), 0);
    ASSERT_EQ(ubus_subscribe(other.get(), &subscriber, demo.object.id), 0);
    EXPECT_EQ(ubus_subscribe(other.get(), &subscriber, demo.object.id + 1), UBUS_STATUS_NOT_FOUND);
    ubus_add_uloop(publisher.get());
    ubus_add_uloop(other.get());
    const auto serve_until = [](std::size_t wanted) {
        while (seen.size() < wanted) {
            ASSERT_EQ(uloop_run_timeout(long_limit), 0);
        }
    };
    serve_until(1);
    EXPECT_TRUE(demo.object.has_subscribers);
    ubus_notify_request request;
    const buffer empty;
    ASSERT_EQ(ubus_notify_async(publisher.get(), &demo.object, "up", empty.buf.head, &request), 0);
    note_ends(request);
    ubus_complete_request_async(publisher.get(), &request.req);
    serve_until(5);
    EXPECT_EQ(seen, (std::vector<std::string>{"active 1", "up", "reply",
                                              named("id", subscriber.obj.id) + " answers 0",
                                              "complete"}));
    ASSERT_EQ(ubus_remove_object(publisher.get(), &demo.object), 0);
    serve_until(6);
    EXPECT_EQ(seen.back(), "lost");
    EXPECT_EQ(ubus_unregister_subscriber(other.get(), &subscriber), 0);
}

} // namespace
