/// What libubus puts on the wire, byte for byte against recorded exchanges. The test plays the
/// daemon and hands out the recorded ids, so nothing has to be mapped.
#include "bus.h"

#include <gtest/gtest.h>
#include <thread>

#include "support/wire.h"

namespace {

// Plays the daemon's part of a recording to one client; each message of the client must be the
// recorded one.
class played_bus {
public:
    explicit played_bus(const std::string& file)
        : thread_([this, file] { play(file); }) {}
    ~played_bus() { thread_.join(); }

    const char* path() const { return listening_.path().c_str(); }

private:
    void play(const std::string& file) {
        const wire::peer client = listening_.accept();
        int number = 0;
        try {
            for (const wire::recorded& line : wire::load(file)) {
                ++number;
                if (line.from_client) {
                    ASSERT_EQ(wire::hex(client.receive().raw), wire::hex(line.raw))
                        << "line " << number;
                } else {
                    client.send(line.raw);
                }
            }
        } catch (const std::exception& error) {
            ADD_FAILURE() << "line " << number << ": " << error.what();
        }
    }

    wire::listening listening_;
    std::thread thread_;
};

struct buffer {
    buffer() { blob_buf_init(&buf, 0); }
    ~buffer() { blob_buf_free(&buf); }
    blob_buf buf{};
};

// The recorded service.
int calls_served = 0;
ubus_request_data late_call;
uloop_timeout late_timer;
ubus_context* service_context = nullptr;

int served() {
    ++calls_served;
    return UBUS_STATUS_OK;
}

int echo(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr* msg) {
    EXPECT_STREQ(req->acl.user, "root");
    EXPECT_STREQ(req->acl.group, "root");
    EXPECT_EQ(ubus_send_reply(ctx, req, msg), 0);
    return served();
}

int deny(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    served();
    return UBUS_STATUS_PERMISSION_DENIED;
}

void answer_late(uloop_timeout*) {
    buffer reply;
    blobmsg_add_string(&reply.buf, "done", "late");
    ubus_send_reply(service_context, &late_call, reply.buf.head);
    ubus_complete_deferred_request(service_context, &late_call, 0);
}

int late(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
    ubus_defer_request(ctx, req, &late_call);
    late_timer.cb = answer_late;
    uloop_timeout_set(&late_timer, 1);
    return served();
}

int quit(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    uloop_end();
    return served();
}

int twice(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char*, blob_attr*) {
    for (std::uint32_t i = 1; i <= 2; ++i) {
        buffer reply;
        blobmsg_add_u32(&reply.buf, "i", i);
        EXPECT_EQ(ubus_send_reply(ctx, req, reply.buf.head), 0);
    }
    return served();
}

ubus_method method(const char* name, ubus_handler_t handler) {
    ubus_method made{};
    made.name = name;
    made.handler = handler;
    return made;
}

TEST(UbusWire, AServiceSendsTheRecordedBytes) {
    const blobmsg_policy arguments[] = {{"msg", BLOBMSG_TYPE_STRING}, {"n", BLOBMSG_TYPE_INT32}};
    ubus_method methods[] = {method("echo", echo), method("deny", deny), method("late", late),
                             method("quit", quit), method("twice", twice)};
    methods[0].policy = arguments;
    methods[0].n_policy = 2;
    ubus_object_type type{"demo", 0, methods, 5};
    ubus_object_type second_type = type;
    ubus_object demo{};
    demo.name = "demo";
    demo.type = &type;
    demo.methods = methods;
    demo.n_methods = 5;
    ubus_object second = demo;
    second.type = &second_type;

    const played_bus bus("wire-service.txt");
    ubus_context* ctx = service_context = ubus_connect(bus.path());
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(be32toh(ctx->local_id), 0x1f90a54du);
    EXPECT_EQ(ubus_add_object(ctx, &demo), 0);
    EXPECT_EQ(demo.id, 0x6ff235c3u);
    EXPECT_EQ(type.id, 0x857a37deu);
    EXPECT_EQ(ubus_add_object(ctx, &second), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(second.id, 0u);

    ubus_add_uloop(ctx);
    uloop_run();
    // The call of an unknown method is answered by the library alone.
    EXPECT_EQ(calls_served, 5);
    EXPECT_EQ(ubus_remove_object(ctx, &demo), 0);
    EXPECT_EQ(demo.id, 0u);
    EXPECT_EQ(type.id, 0u);
    ubus_free(ctx);
    uloop_done();
}

void count_data(ubus_request* req, int type, blob_attr* msg) {
    EXPECT_EQ(type, UBUS_MSG_DATA);
    EXPECT_NE(msg, nullptr);
    ++*static_cast<int*>(req->priv);
}

TEST(UbusWire, ACallerSendsTheRecordedBytes) {
    const played_bus bus("wire-caller.txt");
    ubus_context* ctx = ubus_connect(bus.path());
    ASSERT_NE(ctx, nullptr);
    std::uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "missing", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_lookup_id(ctx, "demo", &id), 0);
    EXPECT_EQ(id, 0x6ff235c3u);

    const auto call = [ctx](std::uint32_t object, const char* name, blob_attr* msg) {
        int replies = 0;
        const int status = ubus_invoke(ctx, object, name, msg, count_data, &replies, 20000);
        return std::make_pair(status, replies);
    };
    using outcome = std::pair<int, int>;
    buffer arguments;
    blobmsg_add_string(&arguments.buf, "msg", "hi");
    blobmsg_add_u32(&arguments.buf, "n", 42);
    EXPECT_EQ(call(id, "echo", arguments.buf.head), outcome(0, 1));
    const buffer empty;
    EXPECT_EQ(call(id, "twice", empty.buf.head), outcome(0, 2));
    EXPECT_EQ(call(id, "deny", empty.buf.head), outcome(6, 0));
    EXPECT_EQ(call(id, "nosuch", empty.buf.head), outcome(3, 0));
    EXPECT_EQ(call(id, "late", empty.buf.head), outcome(0, 1));
    EXPECT_EQ(call(0x12345678, "echo", empty.buf.head), outcome(4, 0));
    EXPECT_EQ(call(id, "quit", empty.buf.head), outcome(0, 0));
    ubus_free(ctx);
    uloop_done();
}

TEST(UbusWire, ALookupHandsOverPathTypeAndSignature) {
    const wire::listening place;
    std::thread bus([&place] {
        const wire::peer client = place.accept();
        client.send(wire::message(wire::hello, 0, 5000, {}));
        EXPECT_EQ(client.receive().raw, wire::message(wire::lookup, 1, 0, {}));
        client.send(wire::message(wire::data, 1, 0,
                                  wire::objpath("demo") + wire::objid(7) + wire::objtype(8) +
                                      wire::one_method("m")) +
                    wire::message(wire::status, 1, 0, wire::status_is(0)));
        client.wait_for_end();
    });
    ubus_context* ctx = ubus_connect(place.path().c_str());
    ASSERT_NE(ctx, nullptr);
    int found = 0;
    const auto on_object = [](ubus_context*, ubus_object_data* object, void* priv) {
        EXPECT_STREQ(object->path, "demo");
        EXPECT_EQ(object->id, 7u);
        EXPECT_EQ(object->type_id, 8u);
        ASSERT_NE(object->signature, nullptr);
        EXPECT_GT(blob_len(object->signature), 0u);
        ++*static_cast<int*>(priv);
    };
    EXPECT_EQ(ubus_lookup(ctx, nullptr, on_object, &found), 0);
    EXPECT_EQ(found, 1);
    ubus_free(ctx);
    bus.join();
    uloop_done();
}

} // namespace
