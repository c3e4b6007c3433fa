/// Connecting, disconnecting, losing the bus, automatic reconnection and cancel.
#include "client/client_fixture.h"

#include "tarn/error.h"
#include "tarn/uloop.h"

#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <future>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tarn::test {
namespace {

using state = client::state;
using std::chrono::seconds;
using ::testing::ElementsAre;

class Connection : public client_on_bus_test {};
/// Looks for the bus at a socket that nobody serves.
class ConnectionWithoutABus : public client_test {
    bus_daemon none_{bus_daemon::launch::later};
};

TEST_F(Connection, ConnectReportsSuccessOnceAndTellsBothStates) {
    auto& states = record_states();
    outcome connected;
    const auto link = bus().connect(connected.handler());
    EXPECT_TRUE(link.active());
    EXPECT_EQ(bus().get_state(), state::connecting);
    EXPECT_FALSE(bus().is_active());
    EXPECT_FALSE(connected.reported()) << "never before connect() returns";
    run_until([&] { return connected.reported(); });
    EXPECT_FALSE(connected.code());
    EXPECT_TRUE(bus().is_active());
    EXPECT_FALSE(link.active());
    EXPECT_THAT(states, ElementsAre(state::connecting, state::connected));
    EXPECT_EQ(connected.count(), 1U);
}

TEST_F(ConnectionWithoutABus, ConnectReportsUnknownErrorAndReturnsToDisconnected) {
    auto& states = record_states();
    outcome connected;
    bus().connect(connected.handler());
    run_until([&] { return connected.reported(); });
    EXPECT_EQ(connected.code(), make_error_code(error::generic::unknown_error));
    EXPECT_THAT(states, ElementsAre(state::connecting, state::disconnected));
}

TEST_F(Connection, ConnectWhileConnectedSucceedsOnceAsynchronously) {
    connect();
    outcome again;
    const auto link = bus().connect(again.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(again.reported());
    run_until([&] { return again.reported(); });
    EXPECT_FALSE(again.code());
    loop()->drain();
    EXPECT_EQ(again.count(), 1U);
    EXPECT_FALSE(link.active());
}

TEST_F(ConnectionWithoutABus, DisconnectWhileDisconnectedSucceedsOnceAsynchronously) {
    outcome done;
    const auto link = bus().disconnect(done.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(done.reported());
    run_until([&] { return done.reported(); });
    EXPECT_FALSE(done.code());
    loop()->drain();
    EXPECT_EQ(done.count(), 1U);
}

TEST_F(Connection, ConnectWithAnEmptyHandlerGivesAnEmptyLinkAndConnects) {
    EXPECT_FALSE(bus().connect({}).active());
    run_until_state(state::connected);
    EXPECT_FALSE(bus().connect({}).active());
    EXPECT_FALSE(bus().disconnect({}).active());
    run_until_state(state::disconnected);
    EXPECT_FALSE(bus().disconnect({}).active());
}

TEST_F(Connection, DisconnectTellsTheStatesAndReportsSuccess) {
    connect();
    auto& states = record_states();
    outcome done;
    bus().disconnect(done.handler());
    EXPECT_EQ(bus().get_state(), state::disconnecting);
    EXPECT_FALSE(bus().is_active());
    run_until([&] { return done.reported(); });
    EXPECT_FALSE(done.code());
    EXPECT_THAT(states, ElementsAre(state::disconnecting, state::disconnected));
}

TEST_F(Connection, DisconnectDuringConnectingLetsTheConnectionFinishAndThenDisconnects) {
    auto& states = record_states();
    outcome connected;
    outcome disconnected;
    bus().connect(connected.handler());
    bus().disconnect(disconnected.handler());
    EXPECT_EQ(bus().get_state(), state::disconnecting);
    run_until([&] { return disconnected.reported(); });
    EXPECT_EQ(connected.count(), 1U);
    EXPECT_FALSE(connected.code()) << "the connection's own result";
    EXPECT_FALSE(disconnected.code());
    EXPECT_THAT(states, ElementsAre(state::connecting, state::disconnecting, state::disconnected));
}

TEST_F(Connection, ConnectDuringDisconnectingConnectsAgainWithoutAbortingAnybody) {
    connect();
    auto& states = record_states();
    outcome disconnected;
    outcome connected;
    bus().disconnect(disconnected.handler());
    bus().connect(connected.handler());
    EXPECT_EQ(bus().get_state(), state::connecting);
    run_until([&] { return connected.reported(); });
    EXPECT_EQ(disconnected.count(), 1U);
    EXPECT_FALSE(disconnected.code());
    EXPECT_FALSE(connected.code());
    EXPECT_THAT(states, ElementsAre(state::disconnecting, state::connecting, state::connected));
}

TEST_F(Connection, ConnectAfterDisconnectDuringConnectingAbortsTheDisconnectHandlers) {
    outcome first;
    outcome disconnected;
    outcome second;
    bus().connect(first.handler());
    bus().disconnect(disconnected.handler());
    bus().connect(second.handler());
    run_until([&] { return second.reported(); });
    EXPECT_FALSE(first.code());
    EXPECT_FALSE(second.code());
    EXPECT_EQ(disconnected.code(), make_error_code(error::generic::aborted));
    EXPECT_EQ(bus().get_state(), state::connected);
}

TEST_F(Connection, ReleasingTheLinkOfAConnectSuppressesTheReportOnly) {
    outcome connected;
    auto link = bus().connect(connected.handler());
    link.release();
    EXPECT_FALSE(link.active());
    run_until_state(state::connected);
    loop()->drain();
    EXPECT_FALSE(connected.reported());
}

TEST_F(Connection, AConnectHandlerMayReleaseItsOwnAndAnotherWaitingHandlersLink) {
    outcome second;
    utils::link own;
    utils::link other;
    int calls = 0;
    own = bus().connect([&](const std::error_code&) {
        ++calls;
        own.release();
        other.release();
    });
    other = bus().connect(second.handler());
    run_until_state(state::connected);
    loop()->drain();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(second.reported());
    EXPECT_FALSE(own.active());
    EXPECT_FALSE(other.active());
}

// What is asked for while an outcome is being told was overtaken by that outcome, and hears so.
// What was asked for is done all the same.

TEST_F(Connection, ADisconnectAskedForByAConnectHandlerIsToldAbortedAndTheTearDownGoesOn) {
    outcome disconnected;
    bus().connect([&](const std::error_code&) { bus().disconnect(disconnected.handler()); });
    run_until([&] { return disconnected.reported(); });
    EXPECT_EQ(disconnected.code(), make_error_code(error::generic::aborted));
    run_until_state(state::disconnected);
    EXPECT_EQ(disconnected.count(), 1U);
}

TEST_F(Connection, ADisconnectAskedForByASubscriberOfConnectedIsToldAbortedAndTheTearDownGoesOn) {
    outcome connected;
    outcome disconnected;
    const utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::connected) {
            bus().disconnect(disconnected.handler());
        }
    });
    bus().connect(connected.handler());
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(connected.code());
    EXPECT_EQ(disconnected.code(), make_error_code(error::generic::aborted));
    run_until_state(state::disconnected);
    EXPECT_EQ(disconnected.count(), 1U);
}

TEST_F(Connection, AConnectAskedForByADisconnectHandlerIsToldAbortedAndTheAttemptGoesOn) {
    connect();
    outcome connected;
    bus().disconnect([&](const std::error_code&) { bus().connect(connected.handler()); });
    run_until([&] { return connected.reported(); });
    EXPECT_EQ(connected.code(), make_error_code(error::generic::aborted));
    run_until_state(state::connected);
    EXPECT_EQ(connected.count(), 1U);
}

TEST_F(Connection, AConnectAskedForByASubscriberOfDisconnectedIsToldAbortedAndTheAttemptGoesOn) {
    connect();
    outcome connected;
    const utils::scoped_link link = bus().notify_on_state_change([&](state s) {
        if (s == state::disconnected) {
            bus().connect(connected.handler());
        }
    });
    bus().disconnect({});
    run_until([&] { return connected.reported(); });
    EXPECT_EQ(connected.code(), make_error_code(error::generic::aborted));
    run_until_state(state::connected);
    EXPECT_EQ(connected.count(), 1U);
}

TEST_F(Connection, SettingTheSameStateTwiceNotifiesOnce) {
    auto& states = record_states();
    bus().connect({});
    bus().connect({}); // still connecting
    run_until_state(state::connected);
    bus().disconnect({});
    bus().disconnect({}); // still disconnecting
    run_until_state(state::disconnected);
    EXPECT_THAT(states, ElementsAre(state::connecting, state::connected, state::disconnecting,
                                    state::disconnected));
}

TEST_F(Connection, ALostBusIsTornDownAndReportedAsDisconnected) {
    connect();
    auto& states = record_states();
    daemon_.kill9();
    run_until_state(state::disconnected);
    EXPECT_THAT(states, ElementsAre(state::disconnecting, state::disconnected));
}

/// A task that holds the private thread from when it is reached until it is let go.
class hold {
public:
    hold() {
        uloop::get_instance().post([state = state_] {
            state->reached.set_value();
            state->over.get_future().wait();
        });
    }
    void wait_until_reached() { state_->reached.get_future().wait(); }
    void let_go() { state_->over.set_value(); }

private:
    struct promises {
        std::promise<void> reached;
        std::promise<void> over;
    };
    std::shared_ptr<promises> state_ = std::make_shared<promises>();
};

TEST_F(Connection, ALossThatIsHeardOfLateDoesNotEndTheNextConnection) {
    connect();
    auto& states = record_states();
    // The private thread is held in front of the loss until the application has asked for the next
    // connection. The first hold makes it find the second one and the loss at one turn.
    hold first;
    first.wait_until_reached();
    hold second;
    daemon_.restart();
    first.let_go();
    second.wait_until_reached();
    bus().cancel();
    outcome connected;
    bus().connect(connected.handler());
    second.let_go();
    run_until([&] { return connected.reported(); });
    EXPECT_FALSE(connected.code());
    settle();
    EXPECT_THAT(states, ElementsAre(state::disconnecting, state::disconnected, state::connecting,
                                    state::connected));
    EXPECT_EQ(bus().get_state(), state::connected);
}

TEST_F(Connection, AnEmptyStateSubscriberIsNotCalled) {
    auto link = bus().notify_on_state_change({});
    EXPECT_FALSE(link.active());
    EXPECT_NO_THROW(connect());
    EXPECT_NO_THROW(link.release());
}

TEST_F(Connection, AutoConnectConnectsAtOnceAndAgainAfterALoss) {
    std::vector<long long> attempts;
    const auto link = bus().auto_connect([&](long long attempt) {
        attempts.push_back(attempt);
        return seconds(3);
    });
    EXPECT_TRUE(link.active());
    run_until_state(state::connected);
    EXPECT_TRUE(attempts.empty());
    daemon_.kill9();
    run_until_state(state::disconnected);
    daemon_.restart();
    EXPECT_THAT(attempts, ElementsAre(1));
    loop()->advance(seconds(2));
    loop()->drain();
    EXPECT_EQ(bus().get_state(), state::disconnected) << "the delay has not passed yet";
    loop()->advance(seconds(1));
    run_until_state(state::connected);
    EXPECT_TRUE(link.active());
}

TEST_F(ConnectionWithoutABus, AttemptsAreCountedFromOneOverConsecutiveFailures) {
    std::vector<long long> attempts;
    bus().auto_connect([&](long long attempt) {
        attempts.push_back(attempt);
        return seconds(1);
    });
    while (attempts.size() < 4) {
        const auto before = attempts.size();
        run_until([&] { return attempts.size() > before; });
        loop()->advance(seconds(1));
    }
    EXPECT_THAT(attempts, ElementsAre(1, 2, 3, 4));
}

TEST_F(Connection, TheAttemptCounterStartsAnewAfterASuccess) {
    daemon_.kill9();
    std::vector<long long> attempts;
    bus().auto_connect([&](long long attempt) {
        attempts.push_back(attempt);
        return seconds(1);
    });
    run_until([&] { return attempts.size() == 1; });
    loop()->advance(seconds(1));
    run_until([&] { return attempts.size() == 2; });
    daemon_.restart();
    loop()->advance(seconds(1));
    run_until_state(state::connected);
    daemon_.kill9();
    run_until([&] { return attempts.size() == 3; });
    EXPECT_THAT(attempts, ElementsAre(1, 2, 1));
}

TEST_F(ConnectionWithoutABus, TheAttemptCounterStartsAnewWhenAutoConnectIsCalledAgain) {
    std::vector<long long> attempts;
    const auto backoff = [&](long long attempt) {
        attempts.push_back(attempt);
        return seconds(1);
    };
    bus().auto_connect(backoff);
    run_until([&] { return attempts.size() == 1; });
    loop()->advance(seconds(1));
    run_until([&] { return attempts.size() == 2; });
    bus().auto_connect(backoff);
    run_until([&] { return attempts.size() == 3; });
    EXPECT_THAT(attempts, ElementsAre(1, 2, 1));
}

TEST_F(ConnectionWithoutABus, ABackOffOfZeroSecondsTurnsReconnectionOffAfterThatFailure) {
    int asked = 0;
    const auto link = bus().auto_connect([&](long long) {
        ++asked;
        return seconds(0);
    });
    EXPECT_TRUE(link.active());
    run_until([&] { return asked == 1; });
    EXPECT_FALSE(link.active());
    loop()->advance(seconds(100000));
    loop()->drain();
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(ConnectionWithoutABus, ReleasingTheLinkOfAutoConnectTurnsItOff) {
    int asked = 0;
    auto link = bus().auto_connect([&](long long) {
        ++asked;
        return seconds(1);
    });
    run_until([&] { return asked == 1; });
    link.release();
    EXPECT_FALSE(link.active());
    loop()->advance(seconds(1));
    loop()->drain();
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(ConnectionWithoutABus, TheBackOffFunctionMayReleaseItsOwnLink) {
    utils::link link;
    int asked = 0;
    link = bus().auto_connect([&](long long) {
        ++asked;
        link.release();
        return seconds(1);
    });
    run_until([&] { return asked == 1; });
    EXPECT_FALSE(link.active());
    loop()->advance(seconds(1));
    loop()->drain();
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(ConnectionWithoutABus, AnEmptyBackOffConnectsOnceAndGivesAnEmptyLink) {
    auto& states = record_states();
    EXPECT_FALSE(bus().auto_connect({}).active());
    run_until([&] { return states.size() == 2; });
    loop()->advance(seconds(100000));
    loop()->drain();
    EXPECT_THAT(states, ElementsAre(state::connecting, state::disconnected));
}

TEST_F(Connection, ConnectAndDisconnectTurnAutomaticReconnectionOff) {
    const auto first = bus().auto_connect([](long long) { return seconds(1); });
    bus().connect({});
    EXPECT_FALSE(first.active());
    run_until_state(state::connected);
    const auto second = bus().auto_connect([](long long) { return seconds(1); });
    EXPECT_TRUE(second.active());
    bus().disconnect({});
    EXPECT_FALSE(second.active());
    run_until_state(state::disconnected);
    loop()->advance(seconds(5));
    loop()->drain();
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(Connection, CancelCompletesWaitingConnectAndDisconnectHandlersOnTheCallersThread) {
    outcome connected;
    outcome disconnected;
    bus().connect(connected.handler());
    bus().disconnect(disconnected.handler());
    bus().cancel();
    EXPECT_EQ(connected.code(), make_error_code(error::generic::aborted));
    EXPECT_FALSE(disconnected.code());
    EXPECT_EQ(disconnected.count(), 1U);
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(Connection, CancelWhileConnectedEndsDisconnectedAndTheClientConnectsAgain) {
    connect();
    auto& states = record_states();
    bus().cancel();
    EXPECT_THAT(states, ElementsAre(state::disconnecting, state::disconnected));
    outcome again;
    bus().connect(again.handler());
    run_until([&] { return again.reported(); });
    EXPECT_FALSE(again.code());
    EXPECT_EQ(bus().get_state(), state::connected);
}

TEST_F(Connection, CancelDuringConnectingSilencesTheAttemptsResult) {
    auto& states = record_states();
    outcome connected;
    bus().connect(connected.handler());
    bus().cancel();
    outcome again;
    bus().connect(again.handler());
    run_until([&] { return again.reported(); });
    EXPECT_EQ(connected.count(), 1U);
    EXPECT_EQ(connected.code(), make_error_code(error::generic::aborted));
    EXPECT_FALSE(again.code());
    EXPECT_THAT(states, ElementsAre(state::connecting, state::disconnecting, state::disconnected,
                                    state::connecting, state::connected));
}

TEST_F(Connection, AConnectAskedForDuringCancelIsAborted) {
    connect();
    outcome during;
    const auto link = bus().notify_on_state_change([&](state s) {
        if (s == state::disconnecting) {
            bus().connect(during.handler());
        }
    });
    bus().cancel();
    EXPECT_EQ(during.count(), 1U);
    EXPECT_EQ(during.code(), make_error_code(error::generic::aborted));
    EXPECT_EQ(bus().get_state(), state::disconnected);
    utils::link(link).release();
}

TEST_F(Connection, AConnectThatAnAbortedConnectAsksForWaitsForTheNextOutcome) {
    outcome again;
    bus().connect([&](const std::error_code&) { bus().connect(again.handler()); });
    bus().cancel();
    EXPECT_EQ(again.count(), 0U);
    connect();
    EXPECT_EQ(again.count(), 1U);
    EXPECT_FALSE(again.code());
}

TEST_F(Connection, AHandlerThatThrowsAtALossLeavesNoCallWithoutItsReport) {
    connect();
    std::vector<std::shared_ptr<client::exchange_ctx>> open;
    bus().add_object("own", {{"hold", {[&](const auto& context) { open.push_back(context); }, {}}}},
                     {});
    std::array<call_outcome, 3> called;
    for (auto& each : called) {
        bus().invoke("own", "hold", {}, each.handler(), std::chrono::seconds(0));
    }
    bus().invoke(
        "own", "hold", {},
        [](const std::list<blob::attr>&, const std::error_code&) {
            throw std::runtime_error("a result handler's");
        },
        std::chrono::seconds(0));
    run_until([&] { return open.size() == called.size() + 1; });
    bus().disconnect([](const std::error_code&) { throw std::runtime_error("a disconnect's"); });
    EXPECT_THROW(run_until([&] { return called[2].reported(); }), std::runtime_error);
    run_until_state(state::disconnected);
    for (const auto& each : called) {
        EXPECT_EQ(each.count(), 1U);
        EXPECT_EQ(each.code(), make_error_code(error::msg::connection_failed));
    }
}

TEST_F(Connection, AConnectHandlerThatThrowsDoesNotHoldUpADisconnect) {
    bus().connect([](const std::error_code&) { throw std::runtime_error("a connect's"); });
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    EXPECT_THROW(run_until([&] { return disconnected.reported(); }), std::runtime_error);
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(disconnected.code());
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

/// Remembers the dispositions of the signals that libubox is interested in.
class dispositions {
public:
    dispositions() {
        for (const int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            struct sigaction current {};
            ::sigaction(signo, nullptr, &current);
            handlers_.push_back(current.sa_handler);
        }
    }
    bool operator==(const dispositions& other) const { return handlers_ == other.handlers_; }

private:
    std::vector<void (*)(int)> handlers_;
};

TEST_F(Connection, TheApplicationsSignalDispositionsNeverChange) {
    std::signal(SIGTERM, [](int) {});
    const dispositions before;
    bus();
    EXPECT_TRUE(dispositions() == before) << "after get_instance";
    daemon_.kill9();
    outcome failed;
    bus().connect(failed.handler());
    run_until([&] { return failed.reported(); });
    EXPECT_TRUE(failed.code());
    EXPECT_TRUE(dispositions() == before) << "after a failed connect";
    daemon_.restart();
    connect();
    EXPECT_TRUE(dispositions() == before) << "after a good one";
    daemon_.kill9();
    run_until_state(state::disconnected);
    daemon_.restart();
    connect();
    EXPECT_TRUE(dispositions() == before) << "after a reconnection";
    bus().cancel();
    EXPECT_TRUE(dispositions() == before) << "after cancel";
}

volatile std::sig_atomic_t interrupts = 0;

// ThreadSanitizer keeps the handlers itself and stands in for all of them. It looks up the old one
// ahead of the exchange, so that two threads that change one signal at a time may both be told
// SIG_DFL, and one of the handlers is lost. The kernel exchanges them in one step.
#ifndef __SANITIZE_THREAD__
TEST_F(Connection, AHandlerInstalledRightAfterConnectStaysInstalled) {
    for (int round = 0; round < 50; ++round) {
        std::signal(SIGINT, SIG_DFL);
        bus().connect({});
        std::signal(SIGINT, [](int) { interrupts = interrupts + 1; });
        run_until_state(state::connected);
        const auto before = interrupts;
        ASSERT_EQ(std::raise(SIGINT), 0);
        ASSERT_EQ(interrupts, before + 1);
        bus().disconnect({});
        run_until_state(state::disconnected);
    }
}
#endif

/// Waits until the disposition of a signal is, or is not, the default.
void wait_for_default(int signo, bool wanted) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    struct sigaction current {};
    do {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        std::this_thread::yield();
        ::sigaction(signo, nullptr, &current);
    } while ((current.sa_handler == SIG_DFL) != wanted);
}

TEST_F(Connection, SignalsWorkAsEverWhileAConnectWaitsForADaemonThatDoesNotAnswer) {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    bus();
    daemon_.pause();
    bus().connect({});
    // The defaults are not in place, or libubox would have taken them over.
    wait_for_default(SIGINT, false);
    wait_for_default(SIGTERM, false);
#ifndef __SANITIZE_THREAD__ // which holds signals back in the child of a process with threads
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::raise(SIGINT);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
#endif

    const auto own = [](int) {
        interrupts = interrupts + 1;
    };
    std::signal(SIGTERM, own);
    daemon_.resume();
    run_until_state(state::connected);
    wait_for_default(SIGINT, true);
    struct sigaction current {};
    ::sigaction(SIGTERM, nullptr, &current);
    EXPECT_EQ(current.sa_handler, static_cast<void (*)(int)>(own));
}

/// A child that ends with status 7.
pid_t short_child() {
    const pid_t child = ::fork();
    if (child == 0) {
        // Not _exit() itself: to a leak checker, what belonged to the other threads looks lost.
        ::execl("/bin/sh", "sh", "-c", "exit 7", nullptr);
        ::abort();
    }
    return child;
}

TEST_F(Connection, TheApplicationsChildrenStayItsOwnToWaitFor) {
    connect();
    const pid_t child = short_child();
    ASSERT_GE(child, 0);
    // Busy while the child ends, so that a reaping loop would have had its chance.
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    run_until([&] { return disconnected.reported(); });
    connect();
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

/// Asks for children that leave no zombies, for the life of the object.
class without_zombies {
public:
    without_zombies() {
        struct sigaction wanted {};
        wanted.sa_handler = SIG_DFL;
        wanted.sa_flags = SA_NOCLDWAIT | SA_NOCLDSTOP;
        ::sigaction(SIGCHLD, &wanted, &before_);
        flags_ = flags();
    }
    ~without_zombies() { ::sigaction(SIGCHLD, &before_, nullptr); }
    without_zombies(const without_zombies&) = delete;
    without_zombies& operator=(const without_zombies&) = delete;

    /// Whether the flags are those that the application has set.
    bool kept() const { return flags() == flags_; }
    /// Whether the system heeds them: emulators may not.
    static bool heeded() { return ::waitpid(short_child(), nullptr, 0) < 0 && errno == ECHILD; }

private:
    static int flags() {
        struct sigaction current {};
        ::sigaction(SIGCHLD, nullptr, &current);
        return current.sa_handler == SIG_DFL ? current.sa_flags : -1;
    }

    struct sigaction before_ {};
    int flags_ = 0;
};

TEST_F(Connection, ChildrenThatTheApplicationWantsNoZombiesOfLeaveNone) {
    bus();
    daemon_.pause();
    const without_zombies asked;
    const bool heeded = without_zombies::heeded();
    outcome connected;
    bus().connect(connected.handler());
    wait_for_default(SIGCHLD, false);
    EXPECT_EQ(without_zombies::heeded(), heeded) << "during a connect";
    daemon_.resume();
    run_until([&] { return connected.reported(); });
    ASSERT_FALSE(connected.code());
    EXPECT_TRUE(asked.kept());
    EXPECT_EQ(without_zombies::heeded(), heeded) << "after it";
    bus().disconnect({});
    run_until_state(state::disconnected);
    connect();
    EXPECT_TRUE(asked.kept()) << "after another one";
}

} // namespace
} // namespace tarn::test
