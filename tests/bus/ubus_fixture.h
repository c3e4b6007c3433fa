/// What the tests of libubus share: a daemon that plays a part, an object, and what was told of
/// ends.
#pragma once

#include "bus.h"

#include <csignal>
#include <cstdint>
#include <endian.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <vector>

#include "support/bus_daemon.h"
#include "support/wire.h"

namespace ubus_tests {

constexpr std::uint32_t own_id = 5000;
constexpr std::uint32_t object_id = 6000;
constexpr int long_limit = 20000;
// Longest blob of a message, in bytes.
constexpr std::size_t limit = 1048576;

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

// Waits until the other end has taken everything that was sent.
inline void wait_until_read(const wire::peer& client) {
    int waiting = 0;
    do {
        ::sched_yield();
        ASSERT_EQ(::ioctl(client.fd(), SIOCOUTQ, &waiting), 0);
    } while (waiting > 0);
}

inline wire::bytes status(const wire::received& request, std::uint32_t value) {
    return wire::message(wire::status, request.seq(), request.peer(), wire::status_is(value));
}

inline wire::bytes added(const wire::received& request, std::uint32_t id) {
    return wire::message(wire::data, request.seq(), request.peer(),
                         wire::objid(id) + wire::objtype(7000)) +
           status(request, 0);
}

inline wire::bytes call_of(std::uint16_t seq, const std::string& name) {
    return wire::message(wire::invoke, seq, 9000,
                         wire::objid(object_id) + wire::method(name) + wire::text(12, "joe") +
                             wire::text(13, "users") + wire::data_of({}));
}

inline ubus_method method(const char* name, ubus_handler_t handler) {
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
inline seen_end lost;
inline std::vector<int> completed;

inline void on_lost(ubus_context* ctx) {
    ++lost.times;
    lost.stack_depth = ctx->stack_depth;
    lost.eof = ctx->sock.eof;
    lost.completed_before = completed;
    uloop_fd_delete(&ctx->sock);
    uloop_end();
}

inline void on_complete(ubus_request*, int status) {
    completed.push_back(status);
}

inline int answer_ok(ubus_context*, ubus_object*, ubus_request_data*, const char*, blob_attr*) {
    return 0;
}

inline sighandler_t disposition(int signal) {
    struct sigaction now {};
    sigaction(signal, nullptr, &now);
    return now.sa_handler;
}

class ubus_test : public testing::Test {
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

} // namespace ubus_tests
