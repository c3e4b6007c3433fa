/// How libubus connects, and when it does not.
#include "ubus_fixture.h"

#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace ubus_tests;

using UbusConnecting = ubus_test;

TEST_F(UbusConnecting, ConnectingTakesTheDefaultSignalDispositionsAgain) {
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

TEST_F(UbusConnecting, AFailedConnectGivesNull) {
    EXPECT_EQ(ubus_connect("/nonexistent/sock"), nullptr);
    EXPECT_EQ(ubus_connect(("/" + std::string(200, 'x')).c_str()), nullptr);
}

TEST_F(UbusConnecting, ConnectFailsWhenTheDaemonClosesBeforeAnyGreeting) {
    const wire::listening place;
    std::thread bus([&place] { place.accept(); });
    EXPECT_EQ(ubus_connect(place.path().c_str()), nullptr);
    bus.join();
}

TEST_F(UbusConnecting, ConnectFailsWhenTheGreetingIsCutShortOrSomethingElse) {
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

TEST_F(UbusConnecting, ConnectFailsWhenTheGreetingComesInPieces) {
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

TEST_F(UbusConnecting, ConnectWaitsForWhatTheBlobOfTheGreetingHolds) {
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

TEST_F(UbusConnecting, TheLoopCollectsTheProgramsChildren) {
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

} // namespace
