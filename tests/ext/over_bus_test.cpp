/// The typed forms of events, subscriptions and look-ups over a bus, with other processes as peers:
/// the examples.
#include "tarn/ext/ext.h"

#include "client/client_fixture.h"
#include "tarn/error.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tarn::test {

struct greeting {
    std::string msg;
    std::optional<int> count;
};
TARN_FIELDS(greeting, msg, count)

struct door {
    std::string name;
};
TARN_FIELDS(door, name)

struct vote {
    bool open = false;
};
TARN_FIELDS(vote, open)

namespace {

using error::msg;
using ext::answers;
using ext::result;
using namespace std::chrono_literals;

class ExtOverBus : public client_on_bus_test {
protected:
    static child_process start(const std::string& example) {
        return child_process({std::string(TARN_TEST_EXAMPLES "/") + example});
    }

    static void send_greeting() {
        child_process sender = start("send_event");
        EXPECT_EQ(sender.read_rest(), "sent\n");
        EXPECT_EQ(sender.wait(), 0);
    }

    /// The outcome of the last registration of what these options are passed to.
    template <class Options>
    Options registered() {
        Options how;
        how.on_registered = [count = registrations_](const std::error_code& refused) {
            EXPECT_FALSE(refused) << refused.message();
            ++*count;
        };
        return how;
    }
    void run_until_registered(int times = 1) {
        run_until([&] { return *registrations_ == times; });
    }

    void reconnect() {
        daemon_.restart();
        run_until_state(client::state::disconnected);
        connect();
    }

    std::vector<std::string> seen;

private:
    std::shared_ptr<int> registrations_ = std::make_shared<int>(0);
};

TEST_F(ExtOverBus, AListenerReadsTheStructuresOfEventsThroughARestart) {
    const auto link = ext::listen(
        bus(), "greeting.*",
        [&](const std::string& id, const greeting& data) { seen.push_back(id + ' ' + data.msg); },
        registered<ext::listen_options>());
    connect();
    for (const std::size_t times : {1U, 2U}) {
        run_until_registered(static_cast<int>(times));
        send_greeting();
        run_until([&] { return seen.size() == times; });
        EXPECT_EQ(seen.back(), "greeting.first hello");
        if (times == 1) {
            reconnect();
        }
    }
}

TEST_F(ExtOverBus, AnEventReachesAnotherProcess) {
    connect();
    child_process listener = start("listen");
    listener.wait_for_line("listening");
    std::optional<std::error_code> sent;
    ext::send_event(bus(), "from.here", greeting{"hi", {}},
                    [&](const result<void>& outcome) { sent = outcome.error(); });
    run_until([&] { return sent.has_value(); });
    EXPECT_FALSE(*sent);
    EXPECT_EQ(listener.wait_for_line("from.here"), R"(from.here {"msg": "hi"})");
}

TEST_F(ExtOverBus, ASubscriptionAnswersAnotherProcessThroughItsRestart) {
    const auto link = ext::subscribe(
        bus(), "door",
        [&](const std::string& method, const door& which) {
            seen.push_back(method + ' ' + which.name);
            return vote{which.name != "cellar"};
        },
        [&](bus::subscription what, const std::error_code&) { seen.push_back(to_string(what)); });
    connect();
    for (int times = 0; times < 2; ++times) {
        seen.clear();
        child_process publisher = start("notify");
        run_until([&] { return !seen.empty(); });
        std::vector<bool> opened;
        for (const std::string name : {"cellar", "front"}) {
            ext::call(bus(), "door", "open", door{name}, 10s,
                      [&](const result<ext::reply>& answer) {
                          opened.push_back(answer->at<bool>("result"));
                      });
        }
        run_until([&] { return opened.size() == 2 && seen.size() == 4; });
        EXPECT_EQ(seen, (std::vector<std::string>{"subscribed", "may-open cellar", "may-open front",
                                                  "opened front"}));
        EXPECT_EQ(opened, (std::vector<bool>{false, true}));
        publisher.kill(SIGKILL);
        run_until([&] { return seen.size() == 5; });
        EXPECT_EQ(seen.back(), "lost");
    }
}

TEST_F(ExtOverBus, ANotificationThatComesAheadOfTheStateIsAnswered) {
    child_process publisher = start("notify");
    publisher.wait_for_line("door: ready");
    const auto link =
        ext::subscribe(bus(), "door", [](const std::string&, const door&) { return vote{false}; });
    bus().connect({}); // restores the subscription; the loop does not run yet
    publisher.wait_for_line("subscribers");
    child_process caller({TARN_TEST_TOOL, "call", "door", "open", R"({"name": "front"})", "-s"});
    const auto end = std::chrono::steady_clock::now() + limit;
    while (bus().get_bus().stats().notifications_received == 0) {
        ASSERT_LT(std::chrono::steady_clock::now(), end);
        std::this_thread::yield();
    }
    run_until([] { return bus().get_bus().stats().replies_sent == 1; });
    settle(); // the answer is completed when the reply is out
    EXPECT_EQ(caller.read_rest(), "{\"result\":false}\n");
}

TEST_F(ExtOverBus, AServiceGetsTheAnswersOfItsSubscribers) {
    connect();
    ext::service published(bus(), "door");
    std::optional<bool> some;
    published.on_subscribers([&](bool now) { some = now; }).publish();
    child_process subscriber = start("subscribe");
    run_until([&] { return some.has_value(); });
    EXPECT_TRUE(*some);
    std::vector<bool> votes;
    for (const std::string name : {"cellar", "front"}) {
        published.notify("may-open", door{name}, 10s, [&](const result<answers<vote>>& all) {
            ASSERT_TRUE(all) << all.message();
            ASSERT_EQ(all->size(), 1U);
            ASSERT_TRUE(all->at(0)) << all->at(0).message();
            votes.push_back(all->at(0)->open);
        });
    }
    run_until([&] { return votes.size() == 2; });
    EXPECT_EQ(votes, (std::vector<bool>{false, true}));
    published.notify("opened", door{"front"}, nullptr);
    EXPECT_EQ(subscriber.wait_for_line("opened"), "opened front");
    subscriber.kill(SIGKILL);
    run_until([&] { return !*some; });
}

TEST_F(ExtOverBus, TheStateIsAskedForWhenAListenerIsRegistered) {
    start_service();
    ext::listen_options how;
    how.on_registered = [&](const std::error_code&) {
        ext::call(bus(), "demo", "echo", {{"msg", "asked"}}, 10s,
                  [&](const result<ext::reply>& answer) {
                      seen.push_back(answer ? answer->at<std::string>("msg") : answer.message());
                  });
    };
    const auto link = ext::listen(
        bus(), "*", [](const std::string&, const ext::reply&) {}, how);
    connect();
    run_until([&] { return !seen.empty(); });
    EXPECT_EQ(seen.back(), "asked");
}

ext::task<std::string> look(client* bus) {
    const std::vector<std::string> paths{"demo"};
    (co_await ext::wait_for(*bus, paths, 30s)).value();
    const auto found = co_await ext::objects(*bus, "demo");
    co_return found->at(0).path + ' ' + std::to_string(found->at(0).methods.size() > 1);
}

TEST_F(ExtOverBus, ATaskWaitsForAnObjectAndLooksAtIt) {
    connect();
    std::optional<std::string> yielded;
    ext::spawn(bus(), look(&bus()), [&](ext::finished<std::string> end) { yielded = end.get(); });
    start_service();
    run_until([&] { return yielded.has_value(); });
    EXPECT_EQ(*yielded, "demo 1");
}

ext::task<> take_three(ext::stream<ext::event<greeting>> events, std::vector<std::string>* seen) {
    for (int n = 0; n < 3; ++n) {
        seen->push_back((co_await events.next())->data.msg);
    }
}

TEST_F(ExtOverBus, AStreamYieldsEventsThroughARestart) {
    connect();
    const auto reading =
        ext::spawn(bus(), take_three(ext::events<greeting>(bus(), "greeting.first",
                                                           registered<ext::listen_options>()),
                                     &seen));
    run_until_registered();
    send_greeting();
    send_greeting();
    run_until([&] { return seen.size() == 2; });
    reconnect();
    run_until_registered(2);
    send_greeting();
    run_until([&] { return !reading.active(); });
    EXPECT_EQ(seen, (std::vector<std::string>{"hello", "hello", "hello"}));
}

ext::task<> read_changes(ext::stream<ext::object_change> changes, std::vector<std::string>* seen) {
    while (const auto change = co_await changes.next()) {
        seen->push_back(change->path + ' ' + to_string(change->what));
    }
}

TEST_F(ExtOverBus, AStreamYieldsTheObjectsThatComeAndGo) {
    start_service();
    connect();
    const utils::scoped_link reading = ext::spawn(
        bus(),
        read_changes(ext::object_changes(bus(), "demo*", registered<bus::options>()), &seen));
    run_until_registered();
    service_->kill(SIGKILL);
    run_until([&] { return seen.size() == 2; });
    start_service();
    run_until([&] { return seen.size() == 3; });
    EXPECT_EQ(seen, (std::vector<std::string>{"demo appeared", "demo gone", "demo appeared"}));
}

TEST_F(ExtOverBus, AThreadWaitsForFutures) {
    connect();
    std::atomic<bool> over{false};
    std::thread worker([&] {
        ext::async_wait_for(bus(), {"demo"}, 30s).get();
        EXPECT_EQ(ext::async_objects(bus(), "demo").get().at(0).path, "demo");
        EXPECT_NO_THROW(ext::async_send_event(bus(), "done", greeting{"hi", {}}).get());
        EXPECT_EQ(ext::async_notify(bus(), "none", "done", blob::table(), 1s).get_result().error(),
                  msg::not_found);
        over = true;
    });
    start_service();
    run_until([&] { return over.load(); });
    worker.join();
}

} // namespace
} // namespace tarn::test
