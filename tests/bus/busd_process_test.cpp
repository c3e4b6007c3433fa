/// The daemon as a process: its options, its socket, and many clients at once.
#include "support/bus_daemon.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/child_process.h"
#include "support/wire.h"

namespace {

using tarn::test::bus_daemon;
using tarn::test::child_process;
using testing::HasSubstr;

constexpr int usage_error = 2;

wire::peer join(const bus_daemon& daemon) {
    wire::peer joined(daemon.connect());
    EXPECT_EQ(joined.receive().type(), wire::hello);
    return joined;
}

std::uint32_t publish(const wire::peer& owner, const std::string& path) {
    owner.send(wire::message(wire::add_object, 1, 0, wire::objpath(path) + wire::one_method("m")));
    const std::uint32_t id = owner.receive().number(3);
    EXPECT_EQ(owner.receive().number(1), 0u);
    return id;
}

wire::bytes call(std::uint16_t seq, std::uint32_t object, const wire::bytes& fields = {}) {
    return wire::message(wire::invoke, seq, object,
                         wire::objid(object) + wire::method("m") + wire::data_of(fields));
}

// The daemon answers a ping, with the ping itself and a status.
void expect_answer_to_ping(const wire::peer& client, std::uint16_t seq) {
    EXPECT_EQ(client.receive().raw, wire::message(wire::data, seq, 0, {}));
    EXPECT_EQ(client.receive().raw, wire::message(wire::status, seq, 0, wire::status_is(0)));
}

// Two sockets, a call and its answer: the daemon serves.
void expect_service(const bus_daemon& daemon) {
    const wire::peer client = join(daemon);
    client.send(wire::message(wire::ping, 5, 0, {}));
    expect_answer_to_ping(client, 5);
}

bool exists(const std::string& path) {
    struct stat found;
    return ::lstat(path.c_str(), &found) == 0;
}

class output_of {
public:
    explicit output_of(const std::string& arguments)
        : child({"/bin/sh", "-c",
                 std::string("exec ") + TARN_TEST_BUSD_PATH + " " + arguments + " 2>&1"})
        , text(child.read_rest())
        , status(child.wait()) {}

private:
    child_process child;

public:
    std::string text;
    int status;
};

TEST(BusdProcess, ShowsItsHelp) {
    const output_of run("-h");
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.text, HasSubstr("Usage: tarn-busd"));
}

TEST(BusdProcess, ShowsItsVersion) {
    const output_of run("--version");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.text, "tarn-busd 0.0.1\n");
}

TEST(BusdProcess, RefusesUnknownOptionsAndArguments) {
    EXPECT_EQ(output_of("-x").status, usage_error);
    EXPECT_EQ(output_of("--nonsense").status, usage_error);
    EXPECT_EQ(output_of("-s").status, usage_error);
    EXPECT_EQ(output_of("stray").status, usage_error);
}

TEST(BusdProcess, SaysWhyItCannotBind) {
    const output_of run("-s /nonexistent/folder/sock");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.text, HasSubstr("cannot bind /nonexistent/folder/sock"));
    EXPECT_EQ(output_of("-s /" + std::string(200, 'x')).status, 1);
}

TEST(BusdProcess, SaysWhenItListens) {
    const bus_daemon place(bus_daemon::launch::later);
    child_process daemon({TARN_TEST_BUSD_PATH, "-s", place.socket_path()});
    EXPECT_EQ(daemon.wait_for_line("tarn-busd: listening on "),
              "tarn-busd: listening on " + place.socket_path());
    expect_service(place);
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(BusdProcess, RemovesItsSocketOnSigterm) {
    bus_daemon daemon;
    EXPECT_TRUE(exists(daemon.socket_path()));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_FALSE(exists(daemon.socket_path()));
}

TEST(BusdProcess, RemovesItsSocketOnSigint) {
    const bus_daemon place(bus_daemon::launch::later);
    child_process daemon({TARN_TEST_BUSD_PATH, "-s", place.socket_path()});
    daemon.wait_for_line("tarn-busd: listening on ");
    daemon.kill(SIGINT);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_FALSE(exists(place.socket_path()));
}

TEST(BusdProcess, ReplacesAStaleSocket) {
    bus_daemon daemon;
    daemon.kill9();
    ASSERT_TRUE(exists(daemon.socket_path()));
    daemon.start();
    expect_service(daemon);
}

TEST(BusdProcess, LeavesASocketThatIsServed) {
    const bus_daemon daemon;
    const output_of second("-s " + daemon.socket_path());
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.text, HasSubstr("another daemon is listening on " + daemon.socket_path()));
    expect_service(daemon);
}

TEST(BusdProcess, LeavesASocketWhoseDaemonIsHeld) {
    bus_daemon daemon;
    daemon.pause();
    EXPECT_EQ(output_of("-s " + daemon.socket_path()).status, 1);
    daemon.resume();
    expect_service(daemon);
}

TEST(BusdProcess, LeavesAFileThatIsNoSocket) {
    const bus_daemon place(bus_daemon::launch::later);
    std::ofstream(place.socket_path()) << "precious";
    const output_of run("-s " + place.socket_path());
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.text, HasSubstr("is not a socket"));
    EXPECT_TRUE(exists(place.socket_path()));
}

TEST(BusdProcess, DoesNotRemoveTheSocketOfItsSuccessor) {
    bus_daemon daemon;
    ASSERT_EQ(::unlink(daemon.socket_path().c_str()), 0);
    child_process successor({TARN_TEST_BUSD_PATH, "-s", daemon.socket_path()});
    successor.wait_for_line("tarn-busd: listening on ");
    daemon.stop();
    EXPECT_TRUE(exists(daemon.socket_path()));
    expect_service(daemon);
}

TEST(BusdProcess, NamesUserAndGroupOfTheCaller) {
    const bus_daemon daemon;
    const wire::peer service = join(daemon);
    const wire::peer caller = join(daemon);
    const std::uint32_t id = publish(service, "demo");
    caller.send(call(1, id));
    const auto got = service.receive();
    EXPECT_EQ(wire::nested(12, got.attribute(12)), wire::text(12, wire::own_user()));
    EXPECT_EQ(wire::nested(13, got.attribute(13)), wire::text(13, wire::own_group()));
}

TEST(BusdProcess, CutsOffOnlyTheClientThatBreaksTheFraming) {
    const bus_daemon daemon;
    const wire::peer good = join(daemon);
    const wire::peer bad = join(daemon);
    bad.send(wire::message(wire::ping, 1, 0, {}) + wire::bytes(64, 0xff));
    // What it asked before is answered still.
    expect_answer_to_ping(bad, 1);
    bad.wait_for_end();
    good.send(wire::message(wire::ping, 1, 0, {}));
    expect_answer_to_ping(good, 1);
}

TEST(BusdProcess, CutsOffAClientThatExceedsTheLimit) {
    const bus_daemon daemon;
    const wire::peer client = join(daemon);
    client.send({0, wire::ping, 0, 1, 0, 0, 0, 0, 0, 0x10, 0, 4});
    client.wait_for_end();
    expect_service(daemon);
}

TEST(BusdProcess, TakesAMessageOfExactlyTheLimit) {
    constexpr std::size_t limit = 1048576;
    const bus_daemon daemon;
    const wire::peer client = join(daemon);
    const wire::bytes largest = wire::nested(7, wire::bytes(limit - 8));
    client.send(wire::message(wire::ping, 1, 0, largest));
    EXPECT_EQ(client.receive().raw, wire::message(wire::data, 1, 0, largest));
    EXPECT_EQ(client.receive().number(1), 0u);
}

TEST(BusdProcess, ForgetsTheObjectsOfAClientThatGoes) {
    const bus_daemon daemon;
    wire::peer service = join(daemon);
    const wire::peer caller = join(daemon);
    publish(service, "demo");
    service.close();
    std::uint32_t status = 0;
    // The daemon sees the end of one socket and data on the other in an order of its own.
    do {
        caller.send(wire::message(wire::lookup, 1, 0, wire::objpath("demo")));
        wire::received answer = caller.receive();
        while (answer.type() == wire::data) {
            answer = caller.receive();
        }
        status = answer.number(1);
    } while (status == 0);
    EXPECT_EQ(status, 4u);
}

TEST(BusdProcess, NeverWaitsForASlowReaderAndKeepsItInStep) {
    constexpr int calls = 100;
    const bus_daemon daemon;
    const wire::peer slow = join(daemon);
    const wire::peer caller = join(daemon);
    const std::uint32_t id = publish(slow, "slow");
    for (int i = 1; i <= calls; ++i) {
        caller.send(call(static_cast<std::uint16_t>(i), id, wire::bytes(100000)));
    }
    // Ten megabytes for one that does not read, and still everybody is served.
    caller.send(wire::message(wire::ping, 999, 0, {}));
    expect_answer_to_ping(caller, 999);
    expect_service(daemon);

    // What it reads afterwards are whole messages in order, with some missing.
    slow.send(wire::message(wire::ping, 1000, 0, {}));
    int seen = 0;
    int last = 0;
    bool answered = false;
    while (!answered) {
        const auto got = slow.receive();
        if (got.type() == wire::invoke) {
            EXPECT_GT(got.seq(), last);
            last = got.seq();
            ++seen;
            if (!slow.readable() && seen >= 10) {
                // Its answer may have been dropped like any other message.
                slow.send(wire::message(wire::ping, 1000, 0, {}));
            }
        } else {
            EXPECT_EQ(got.seq(), 1000);
            answered = true;
        }
    }
    EXPECT_GE(seen, 10);
    EXPECT_LT(seen, calls);
}

TEST(BusdProcess, ServesTwoHundredClientsAtOnceWithoutLoss) {
    constexpr std::size_t clients = 200;
    constexpr std::uint16_t calls = 50;
    const bus_daemon daemon;
    const wire::peer service = join(daemon);
    const std::uint32_t id = publish(service, "demo");
    std::vector<wire::peer> callers;
    for (std::size_t i = 0; i < clients; ++i) {
        callers.push_back(join(daemon));
    }
    for (const wire::peer& caller : callers) {
        wire::bytes burst;
        for (std::uint16_t seq = 1; seq <= calls; ++seq) {
            burst = burst + call(seq, id);
        }
        caller.send(burst);
    }
    for (std::size_t i = 0; i < clients * calls; ++i) {
        const auto got = service.receive();
        ASSERT_EQ(got.type(), wire::invoke);
        service.send(
            wire::message(wire::data, got.seq(), got.peer(), wire::objid(id) + wire::data_of({})) +
            wire::message(wire::status, got.seq(), got.peer(),
                          wire::status_is(0) + wire::objid(id)));
    }
    for (const wire::peer& caller : callers) {
        for (std::uint16_t seq = 1; seq <= calls; ++seq) {
            const auto data = caller.receive();
            ASSERT_EQ(data.type(), wire::data);
            ASSERT_EQ(data.seq(), seq);
            ASSERT_EQ(caller.receive().seq(), seq);
        }
    }
}

TEST(BusdProcess, WaitsWithoutSpinningWhenItIsOutOfDescriptors) {
    const bus_daemon place(bus_daemon::launch::later);
    child_process daemon(
        {"/bin/sh", "-c",
         "ulimit -n 16 && exec " TARN_TEST_BUSD_PATH " -s " + place.socket_path()});
    daemon.wait_for_line("tarn-busd: listening on ");
    std::vector<wire::peer> joined;
    std::vector<wire::peer> waiting;
    while (waiting.empty()) {
        wire::peer next(place.connect());
        pollfd readable{next.fd(), POLLIN, 0};
        // The others get their greeting at once.
        (::poll(&readable, 1, 1000) > 0 ? joined : waiting).push_back(std::move(next));
        ASSERT_LT(joined.size(), 64u);
    }
    ASSERT_FALSE(joined.empty());
    const auto used = [&daemon] {
        std::ifstream stat("/proc/" + std::to_string(daemon.pid()) + "/stat");
        std::string word;
        // Fields 14 and 15: ticks in user and in kernel mode.
        for (int i = 0; i < 13; ++i) {
            stat >> word;
        }
        long user = 0;
        long kernel = 0;
        stat >> user >> kernel;
        return user + kernel;
    };
    const long before = used();
    joined.back().receive();
    joined.back().send(wire::message(wire::ping, 1, 0, {}));
    joined.back().receive();
    pollfd nothing{waiting.back().fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&nothing, 1, 700), 0);
    EXPECT_LT(used() - before, 20);
    // A place gets free: the one that waits is greeted.
    joined.pop_back();
    EXPECT_EQ(waiting.back().receive().type(), wire::hello);
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

} // namespace
