/// Tasks: when they run, what becomes of their results and exceptions, and how they are ended.
#include "tarn/ext/task.h"

#include "client/client_fixture.h"
#include "support/expect_throw.h"
#include "support/small_stack.h"
#include "tarn/ext/await.h"

#include <coroutine>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {
namespace {

using ext::finished;
using ext::spawn;
using ext::task;
using std::chrono::seconds;

/// Tasks on a loop that is turned by hand, without a bus.
class Task : public client_test {};

task<int> number(int n) {
    co_return n;
}

task<> failing() {
    throw std::runtime_error("broken");
    co_return;
}

task<> note(std::vector<std::string>& notes, std::string text) {
    notes.push_back(std::move(text));
    co_return;
}

/// Notes the beginning, the end and the destruction of its frame around a sleep.
task<> sleeping(std::vector<std::string>& notes) {
    const auto at_end =
        std::shared_ptr<void>(nullptr, [&notes](void*) { notes.push_back("gone"); });
    notes.push_back("sleeps");
    co_await ext::sleep(client::get_instance({}), seconds(5));
    notes.push_back("wakes");
}

TEST_F(Task, NothingOfATaskRunsUnlessItIsAwaitedOrSpawned) {
    std::vector<std::string> notes;
    { const auto never = note(notes, "never"); }
    loop()->drain();
    EXPECT_TRUE(notes.empty());
}

TEST_F(Task, ASpawnedTaskBeginsInTheLoopsNextTurn) {
    std::vector<std::string> notes;
    const auto link = spawn(bus(), note(notes, "ran"));
    EXPECT_TRUE(notes.empty());
    EXPECT_TRUE(link.active());
    loop()->drain();
    EXPECT_EQ(notes, std::vector<std::string>{"ran"});
    EXPECT_FALSE(link.active());
}

task<std::string> text_of(int n) {
    const int doubled = 2 * co_await number(n);
    co_return std::to_string(doubled);
}

TEST_F(Task, TheHandlerGetsTheValueOnce) {
    std::vector<std::string> values;
    utils::link link;
    link = spawn(bus(), text_of(21), [&](finished<std::string> outcome) {
        EXPECT_FALSE(link.active());
        EXPECT_EQ(outcome.exception(), nullptr);
        values.push_back(outcome.get());
    });
    loop()->drain();
    EXPECT_EQ(values, std::vector<std::string>{"42"});
}

task<std::unique_ptr<int>> owned_number() {
    co_return std::make_unique<int>(7);
}

TEST_F(Task, ValuesThatCannotBeCopiedAreMoved) {
    std::unique_ptr<int> value;
    spawn(bus(), owned_number(),
          [&](finished<std::unique_ptr<int>> outcome) { value = outcome.get(); });
    loop()->drain();
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, 7);
}

task<std::string> caught() {
    try {
        co_await failing();
    } catch (const std::runtime_error& thrown) {
        co_return thrown.what();
    }
    co_return "nothing";
}

TEST_F(Task, AnExceptionPassesToTheTaskThatAwaits) {
    std::string seen;
    spawn(bus(), caught(), [&](finished<std::string> outcome) { seen = outcome.get(); });
    loop()->drain();
    EXPECT_EQ(seen, "broken");
}

TEST_F(Task, AnExceptionThatLeavesASpawnedTaskReachesItsHandler) {
    bool reported = false;
    spawn(bus(), failing(), [&](finished<void> outcome) {
        reported = true;
        EXPECT_NE(outcome.exception(), nullptr);
        expect_throw_msg<std::runtime_error>([&] { outcome.get(); }, "broken");
    });
    loop()->drain();
    EXPECT_TRUE(reported);
}

TEST_F(Task, WithoutAHandlerAnExceptionPassesThroughTheLoop) {
    const auto link = spawn(bus(), failing());
    expect_throw_msg<std::runtime_error>([] { loop()->drain(); }, "broken");
    EXPECT_FALSE(link.active());
}

task<std::int64_t> sum_of_ready(int count) {
    std::int64_t sum = 0;
    for (int n = 0; n < count; ++n) {
        sum += co_await number(n);
    }
    co_return sum;
}

TEST_F(Task, AwaitingAHundredThousandReadyTasksTakesNoStack) {
    std::int64_t sum = 0;
    spawn(bus(), sum_of_ready(100000),
          [&](finished<std::int64_t> outcome) { sum = outcome.get(); });
    on_small_stack([] { loop()->drain(); });
    EXPECT_EQ(sum, 4999950000);
}

task<int> depth(int levels) {
    if (levels == 0) {
        co_return 0;
    }
    co_return 1 + co_await depth(levels - 1);
}

TEST_F(Task, AwaitingAHundredThousandDeepTakesNoStack) {
    int reached = 0;
    spawn(bus(), depth(100000), [&](finished<int> outcome) { reached = outcome.get(); });
    on_small_stack([] { loop()->drain(); });
    EXPECT_EQ(reached, 100000);
}

TEST_F(Task, ReleasingTheLinkBeforeTheStartRunsNothing) {
    std::vector<std::string> notes;
    auto link = spawn(bus(), note(notes, "ran"), [&](finished<void>) { notes.push_back("done"); });
    link.release();
    EXPECT_FALSE(link.active());
    loop()->drain();
    EXPECT_TRUE(notes.empty());
}

task<> around(std::vector<std::string>& notes) {
    const auto at_end =
        std::shared_ptr<void>(nullptr, [&notes](void*) { notes.push_back("outer gone"); });
    co_await sleeping(notes);
    notes.push_back("never");
}

TEST_F(Task, ReleasingTheLinkDestroysTheFramesFromTheInnermostOn) {
    std::vector<std::string> notes;
    bus(); // has a timer of its own
    const auto timers = loop()->timers_alive();
    auto link = spawn(bus(), around(notes), [&](finished<void>) { notes.push_back("done"); });
    loop()->drain();
    EXPECT_EQ(loop()->timers_alive(), timers + 1);
    link.release();
    EXPECT_EQ(notes, (std::vector<std::string>{"sleeps", "gone", "outer gone"}));
    EXPECT_EQ(loop()->timers_alive(), timers);
    loop()->advance(seconds(10));
    loop()->drain();
    EXPECT_EQ(notes.size(), 3U);
}

TEST_F(Task, AScopedLinkEndsTheTask) {
    std::vector<std::string> notes;
    {
        const utils::scoped_link job = spawn(bus(), sleeping(notes));
        loop()->drain();
    }
    EXPECT_EQ(notes, (std::vector<std::string>{"sleeps", "gone"}));
}

TEST_F(Task, DroppingTheLinkLeavesTheTaskRunning) {
    std::vector<std::string> notes;
    { const auto dropped = spawn(bus(), sleeping(notes)); }
    loop()->drain();
    loop()->advance(seconds(5));
    EXPECT_EQ(notes, (std::vector<std::string>{"sleeps", "wakes", "gone"}));
}

task<> ending_itself(utils::link& own, std::vector<std::string>& notes) {
    const auto at_end =
        std::shared_ptr<void>(nullptr, [&notes](void*) { notes.push_back("gone"); });
    own.release();
    notes.push_back("goes on");
    co_await ext::sleep(client::get_instance({}), seconds(0));
    notes.push_back("never");
}

TEST_F(Task, ATaskThatReleasesItsOwnLinkRunsOnToTheNextWait) {
    std::vector<std::string> notes;
    utils::link link;
    link =
        spawn(bus(), ending_itself(link, notes), [&](finished<void>) { notes.push_back("done"); });
    loop()->drain();
    loop()->advance(seconds(1));
    EXPECT_EQ(notes, (std::vector<std::string>{"goes on", "gone"}));
}

TEST_F(Task, WhatTheHandlerOwnsOutlivesTheFrame) {
    std::vector<std::string> notes;
    const auto owner =
        std::shared_ptr<void>(nullptr, [&notes](void*) { notes.push_back("owner gone"); });
    auto link = spawn(bus(), sleeping(notes), [owner](finished<void>) {});
    const_cast<std::shared_ptr<void>&>(owner).reset();
    loop()->drain();
    link.release();
    EXPECT_EQ(notes, (std::vector<std::string>{"sleeps", "gone", "owner gone"}));
}

/// Waits at `place`, which then owns the task, as the handler of a call does.
class parked {
public:
    explicit parked(std::shared_ptr<void>& place)
        : place_(place) {}
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> here) const {
        place_ = ext::detail::run_of(here);
    }
    void await_resume() const noexcept {}

private:
    std::shared_ptr<void>& place_;
};

task<> using_until_its_end(std::shared_ptr<void>& place, std::weak_ptr<int> used, bool& was_there) {
    const auto at_end =
        std::shared_ptr<void>(nullptr, [used, &was_there](void*) { was_there = !used.expired(); });
    co_await parked(place);
}

TEST_F(Task, WhatTheHandlerOwnsOutlivesAFrameThatIsDroppedAsWell) {
    std::shared_ptr<void> place;
    bool was_there = false;
    {
        const auto owned = std::make_shared<int>();
        spawn(bus(), using_until_its_end(place, owned, was_there), [owned](finished<void>) {});
    }
    loop()->drain();
    ASSERT_TRUE(place);
    place.reset();
    EXPECT_TRUE(was_there);
}

TEST_F(Task, ATaskThatWasMovedFromIsRefused) {
    auto one = number(1);
    const auto other = std::move(one);
    expect_throw_msg<std::logic_error>([&] { spawn(bus(), std::move(one)); },
                                       "tarn::ext::spawn: the task was moved from");
}

} // namespace
} // namespace tarn::test
