/// What a task asks of the bus with co_await beside calls.
#include "tarn/ext/bus_await.h"

#include "fake_fixture.h"

#include <chrono>
#include <memory>
#include <thread>

namespace tarn::test {
namespace {

using error::generic;
using error::msg;
using ext::finished;
using ext::spawn;
using ext::task;
using testing::outcome;
using namespace std::chrono_literals;

class BusAwait : public fake_fixture {
protected:
    /// Runs `work` to its end and returns what it yields.
    template <class T>
    T outcome_of(task<T> work) {
        std::optional<T> yielded;
        spawn(bus, std::move(work), [&](finished<T> end) { yielded.emplace(end.get()); });
        loop->drain();
        EXPECT_TRUE(yielded.has_value());
        return std::move(yielded).value();
    }
};

task<std::string> ask_everything(client* bus) {
    const blob::table fields{{"name", "front"}};
    const std::vector<std::string> paths{"a"};
    const door front{"front", 1};
    (co_await ext::send_event(*bus, "door.open", fields)).value();
    (co_await ext::send_event(*bus, "door.open", front)).value();
    (co_await ext::wait_for(*bus, paths, 1500ms)).value();
    const auto found = co_await ext::objects(*bus, "a*");
    (co_await ext::notify(*bus, "porter", "opened", fields)).value();
    (co_await ext::notify(*bus, "porter", "opened", front)).value();
    const auto answers = co_await ext::notify(*bus, "porter", "may-open", fields, 1500ms);
    const auto typed = co_await ext::notify<door>(*bus, "porter", "may-open", front, 1500ms);
    co_return found->at(0).path + std::to_string(answers->size()) + typed->at(0)->name;
}

TEST_F(BusAwait, EverythingYieldsItsOutcome) {
    connect();
    publish("porter");
    rest.add_object("a");
    rest.answer_notification("porter", "may-open", {outcome::reply({{"name", "back"}})});
    EXPECT_EQ(outcome_of(ask_everything(&bus)), "a1back");
    EXPECT_EQ(rest.sent_events().size(), 2U);
    ASSERT_EQ(rest.notifications().size(), 4U);
    EXPECT_EQ(rest.notifications()[2].limit, 2s);
}

task<std::error_code> send(client* bus) {
    const auto sent = co_await ext::send_event(*bus, "door.open");
    co_return sent.error();
}

TEST_F(BusAwait, AFailureIsYielded) {
    EXPECT_EQ(outcome_of(send(&bus)), msg::connection_failed);
}

task<std::error_code> wait(client* bus, std::thread::id* resumed_on) {
    const std::vector<std::string> paths{"never"};
    const auto waited = co_await ext::wait_for(*bus, paths);
    *resumed_on = std::this_thread::get_id();
    co_return waited.error();
}

TEST_F(BusAwait, ATaskThatIsCancelledOnAnotherThreadGoesOnOnTheLoops) {
    connect();
    std::optional<std::error_code> yielded;
    std::thread::id resumed_on;
    spawn(bus, wait(&bus, &resumed_on),
          [&](finished<std::error_code> end) { yielded = end.get(); });
    loop->drain();
    std::thread([&] { bus.cancel(); }).join();
    EXPECT_FALSE(yielded);
    loop->drain();
    EXPECT_EQ(yielded, make_error_code(generic::aborted));
    EXPECT_EQ(resumed_on, std::this_thread::get_id());
}

TEST_F(BusAwait, ATaskThatIsEndedEndsItsWait) {
    connect();
    std::thread::id resumed_on;
    auto link = spawn(bus, wait(&bus, &resumed_on));
    loop->drain();
    EXPECT_EQ(rest.pending_waits(), 1U);
    link.release();
    EXPECT_EQ(rest.pending_waits(), 0U);
}

/// Waits until the client is connected, then for an answer, and notes the destruction of its frame.
task<> wait_for_good(client* bus, std::vector<std::string>* notes) {
    const std::shared_ptr<void> at_end(nullptr, [notes](void*) { notes->push_back("gone"); });
    notes->push_back("waits");
    co_await ext::connected(*bus);
    notes->push_back("calls");
    static_cast<void>(co_await ext::call(*bus, "demo", "hang"));
    notes->push_back("never");
}

TEST_F(BusAwait, ATaskThatWaitsForAnAnswerIsDestroyedWithTheClient) {
    {
        testing::fake_client ending(loop);
        ending.on("demo", "hang", outcome::no_answer());
        ending.connect({});
        loop->drain();
        spawn(ending, wait_for_good(&ending, &seen));
        loop->drain();
        EXPECT_EQ(seen, (std::vector<std::string>{"waits", "calls"}));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"waits", "calls", "gone"}));
}

TEST_F(BusAwait, ATaskThatWaitsForTheConnectionIsDestroyedWithTheClient) {
    {
        testing::fake_client ending(loop);
        spawn(ending, wait_for_good(&ending, &seen));
        loop->drain();
        EXPECT_EQ(seen, std::vector<std::string>{"waits"});
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"waits", "gone"}));
}

} // namespace
} // namespace tarn::test
