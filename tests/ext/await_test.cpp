/// What tasks wait for: calls, the connection, time; and what is left of it when they are ended.
#include "tarn/ext/await.h"

#include "client/client_fixture.h"
#include "tarn/error.h"

#include <string>
#include <thread>
#include <vector>

namespace tarn::test {

struct echoed {
    std::string msg;
    std::optional<int> n;
};
TARN_FIELDS(echoed, msg, n)

namespace {

using error::msg;
using ext::finished;
using ext::result;
using ext::spawn;
using ext::task;
using std::chrono::milliseconds;
using std::chrono::seconds;

class Await : public client_on_bus_test {
protected:
    /// Runs `work` and returns what it yields.
    template <class T>
    static T outcome_of(task<T> work) {
        std::optional<T> outcome;
        spawn(bus(), std::move(work), [&](finished<T> end) { outcome.emplace(end.get()); });
        run_until([&] { return outcome.has_value(); });
        return std::move(outcome).value();
    }
};

task<ext::reply> echo(blob::table args) {
    co_return* co_await ext::call(client::get_instance({}), "demo", "echo", args);
}

TEST_F(Await, ACallYieldsItsReply) {
    start_service();
    connect();
    const auto answer = outcome_of(echo({{"msg", "hi"}, {"n", 42}}));
    EXPECT_EQ(answer.at<std::string>("msg"), "hi");
    EXPECT_EQ(answer.at<int>("n"), 42);
}

task<result<echoed>> echo_structure(echoed args) {
    co_return co_await ext::call<echoed>(client::get_instance({}), "demo", "echo", args);
}

TEST_F(Await, ACallTakesAndYieldsStructures) {
    start_service();
    connect();
    const auto answer = outcome_of(echo_structure({"hi", 7}));
    EXPECT_EQ(answer.value().msg, "hi");
    EXPECT_EQ(answer.value().n, 7);
}

task<result<echoed>> echo_table(blob::table args) {
    co_return co_await ext::call<echoed>(client::get_instance({}), "demo", "echo", args);
}

TEST_F(Await, AReplyOfAnotherShapeIsAParseErrorThatNamesTheField) {
    start_service();
    connect();
    const auto answer = outcome_of(echo_table({{"msg", 5}}));
    EXPECT_EQ(answer.error(), msg::parse_error);
    EXPECT_NE(answer.message().find("msg: expected a string"), std::string::npos)
        << answer.message();
}

task<result<void>> call_method(std::string method, milliseconds limit = {}) {
    co_return co_await ext::call<void>(client::get_instance({}), "demo", method, {}, limit);
}

TEST_F(Await, ACallThatFailsYieldsItsCode) {
    start_service();
    connect();
    EXPECT_EQ(outcome_of(call_method("deny")).error(), msg::permission_denied);
    EXPECT_EQ(outcome_of(call_method("fly")).error(), msg::method_not_found);
}

TEST_F(Await, ACallWithoutAConnectionYieldsConnectionFailed) {
    EXPECT_EQ(outcome_of(call_method("echo")).error(), msg::connection_failed);
}

TEST_F(Await, TheLimitOfACallIsRoundedUpToWholeSeconds) {
    start_service();
    connect();
    service_->pause();
    std::vector<std::error_code> ends;
    spawn(bus(), call_method("echo", milliseconds(1001)),
          [&](finished<result<void>> end) { ends.push_back(end.get().error()); });
    run_until([&] { return !loop()->armed_timers().empty(); });
    EXPECT_EQ(loop()->armed_timers(), std::vector<seconds>{seconds(2)});
    loop()->advance(seconds(2));
    run_until([&] { return !ends.empty(); });
    EXPECT_EQ(ends, std::vector<std::error_code>{msg::timeout});
    service_->resume();
}

TEST_F(Await, EndingTheTaskEndsTheCallThatItWaitsFor) {
    start_service();
    connect();
    service_->pause();
    bool ended = false;
    auto link = spawn(bus(), call_method("echo", seconds(10)),
                      [&](finished<result<void>>) { ended = true; });
    run_until([&] { return !loop()->armed_timers().empty(); });
    link.release();
    EXPECT_FALSE(link.active());
    EXPECT_TRUE(loop()->armed_timers().empty()) << "the call has gone with its time limit";
    service_->resume();
    settle();
    EXPECT_FALSE(ended);
}

task<std::thread::id> thread_after_abort() {
    const auto outcome =
        co_await ext::call<void>(client::get_instance({}), "demo", "echo", {}, seconds(10));
    EXPECT_EQ(outcome.error(), error::generic::aborted);
    co_return std::this_thread::get_id();
}

TEST_F(Await, ACallThatAnotherThreadCancelsResumesTheTaskOnTheLoop) {
    start_service();
    connect();
    service_->pause();
    std::optional<std::thread::id> resumed;
    spawn(bus(), thread_after_abort(), [&](finished<std::thread::id> end) { resumed = end.get(); });
    run_until([&] { return !loop()->armed_timers().empty(); });
    std::thread([] { bus().cancel(); }).join();
    EXPECT_FALSE(resumed);
    run_until([&] { return resumed.has_value(); });
    EXPECT_EQ(resumed, std::this_thread::get_id());
    service_->resume();
}

task<> wait_for_bus(int& count) {
    co_await ext::connected(client::get_instance({}));
    ++count;
}

TEST_F(Await, ConnectedWaitsForTheConnection) {
    int connected = 0;
    spawn(bus(), wait_for_bus(connected));
    spawn(bus(), wait_for_bus(connected));
    loop()->drain();
    EXPECT_EQ(connected, 0);
    connect();
    run_until([&] { return connected == 2; });
}

TEST_F(Await, ConnectedGoesOnAtOnceWhenThereIsAConnection) {
    connect();
    int connected = 0;
    spawn(bus(), wait_for_bus(connected));
    loop()->drain();
    EXPECT_EQ(connected, 1);
}

TEST_F(Await, ConnectedStaysAsleepWhenTheConnectionIsGoneAgain) {
    int connected = 0;
    auto link = spawn(bus(), wait_for_bus(connected));
    loop()->drain();
    bool cancelled = false;
    const utils::scoped_link states = bus().notify_on_state_change([&](client::state now) {
        if (now == client::state::connected && !cancelled) {
            cancelled = true;
            bus().cancel(); // before the loop gets to the task
        }
    });
    bus().connect({});
    run_until([&] { return cancelled; });
    settle();
    EXPECT_EQ(connected, 0);
    connect();
    run_until([&] { return connected == 1; });
    EXPECT_FALSE(link.active());
}

TEST_F(Await, EndingATaskThatWaitsForTheConnectionUnsubscribesIt) {
    int connected = 0;
    auto link = spawn(bus(), wait_for_bus(connected));
    loop()->drain();
    link.release();
    connect();
    settle();
    EXPECT_EQ(connected, 0);
}

template <class Duration>
task<> sleep_for(Duration delay, int& count) {
    co_await ext::sleep(client::get_instance({}), delay);
    ++count;
}

TEST_F(Await, SleepRoundsUpToWholeSeconds) {
    int woken = 0;
    const auto seconds_of = [&](auto delay) {
        const utils::scoped_link job = spawn(bus(), sleep_for(delay, woken));
        loop()->drain();
        return loop()->armed_timers().at(0);
    };
    EXPECT_EQ(seconds_of(seconds(2)), seconds(2));
    EXPECT_EQ(seconds_of(milliseconds(1)), seconds(1));
    EXPECT_EQ(seconds_of(milliseconds(1500)), seconds(2));
    EXPECT_EQ(seconds_of(std::chrono::hours::max()), seconds::max());
    EXPECT_TRUE(loop()->armed_timers().empty()) << "ended with their links";
    EXPECT_EQ(woken, 0);
}

TEST_F(Await, SleepWakesWhenTheTimeHasPassed) {
    int woken = 0;
    spawn(bus(), sleep_for(seconds(3), woken));
    loop()->drain();
    loop()->advance(seconds(2));
    EXPECT_EQ(woken, 0);
    loop()->advance(seconds(1));
    EXPECT_EQ(woken, 1);
}

} // namespace
} // namespace tarn::test
