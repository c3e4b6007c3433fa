/// Streams of events, notifications and objects that come and go.
#include "tarn/ext/stream.h"

#include "fake_fixture.h"
#include "tarn/ext/print.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using ext::spawn;
using ext::stream;
using ext::task;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using strings = std::vector<std::string>;

using Stream = fake_fixture;

/// Notes the name of each event's door, and the end of the stream.
task<> read_all(stream<ext::event<door>> events, strings* seen) {
    while (const auto event = co_await events.next()) {
        seen->push_back(event->id + ' ' + event->data.name);
    }
    seen->emplace_back("end");
}

TEST_F(Stream, EachEventIsTakenInItsTurn) {
    connect();
    const auto reading = spawn(bus, read_all(ext::events<door>(bus, "door.*"), &seen));
    rest.emit("door.before", {{"name", "first"}});
    loop->drain();
    rest.emit("door.open", {{"name", "front"}});
    rest.emit("window.open", {{"name", "left"}});
    rest.emit("door.shut", {{"name", "back"}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("door.before first", "door.open front", "door.shut back"));
    EXPECT_TRUE(reading.active());
}

TEST_F(Stream, AStreamSurvivesTheEndOfTheConnection) {
    spawn(bus, read_all(ext::events<door>(bus, "*"), &seen));
    loop->drain();
    for (int connection = 0; connection < 3; ++connection) {
        connect();
        rest.emit("e", {{"name", std::to_string(connection)}});
        loop->drain();
        lose();
    }
    bus.cancel();
    loop->drain();
    connect();
    rest.emit("e", {{"name", "after cancel"}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("e 0", "e 1", "e 2", "e after cancel"));
}

TEST_F(Stream, EndingTheTaskReleasesTheOperation) {
    connect();
    auto reading = spawn(bus, read_all(ext::events<door>(bus, "*"), &seen));
    loop->drain();
    EXPECT_THAT(rest.listening(), ElementsAre("*"));
    std::thread([&] { reading.release(); }).join();
    EXPECT_THAT(rest.listening(), IsEmpty());
    rest.emit("e", {{"name", "ignored"}});
    loop->drain();
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(Stream, DestroyingAStreamReleasesTheOperation) {
    { const auto events = ext::events(bus, "*"); }
    EXPECT_THAT(rest.listening(), IsEmpty());
}

task<> read_first(stream<ext::event<>>* events, strings* seen) {
    const auto event = co_await events->next();
    seen->push_back(event ? event->id : "end");
}

TEST_F(Stream, CloseEndsTheStreamForTheTaskThatWaits) {
    connect();
    auto events = ext::events(bus, "*");
    spawn(bus, read_first(&events, &seen));
    loop->drain();
    std::thread([&] { events.close(); }).join();
    EXPECT_THAT(seen, IsEmpty()) << "the task goes on on the loop";
    EXPECT_THAT(rest.listening(), IsEmpty());
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("end"));
}

TEST_F(Stream, AClosedStreamYieldsNothingOfWhatWaited) {
    connect();
    auto events = ext::events(bus, "*");
    rest.emit("waits");
    loop->drain();
    events.close();
    spawn(bus, read_first(&events, &seen));
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("end"));
}

TEST_F(Stream, ATaskThatIsBehindLosesTheOldestAndLearnsHowMany) {
    connect();
    ext::listen_options how;
    how.most_undelivered = 2;
    strings dropped;
    how.on_dropped = [&](std::uint64_t count) {
        dropped.push_back(std::to_string(count));
    };
    auto events = ext::events(bus, "*", how);
    for (const char* id : {"1", "2", "3", "4"}) {
        rest.emit(id); // two of them are dropped ahead of the loop
    }
    loop->drain();
    EXPECT_THAT(dropped, ElementsAre("2"));
    EXPECT_EQ(events.dropped(), 2U);
    rest.emit("5");
    loop->drain(); // another one in the stream
    EXPECT_EQ(events.dropped(), 3U);
    spawn(bus, read_first(&events, &seen));
    spawn(bus, read_first(&events, &seen));
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("4", "5"));
}

TEST_F(Stream, AMismatchIsReportedAndLeftOut) {
    connect();
    ext::listen_options how;
    how.on_mismatch = [&](const std::string& id, const ext::mismatch& wrong) {
        seen.push_back(id + ": " + wrong.what());
    };
    spawn(bus, read_all(ext::events<door>(bus, "*", how), &seen));
    loop->drain();
    rest.emit("bad");
    rest.emit("good", {{"name", "front"}});
    loop->drain();
    EXPECT_THAT(seen,
                ElementsAre("bad: name: expected a string, found no such field", "good front"));
}

task<> read_refused(stream<ext::event<>>* events, strings* seen) {
    try {
        co_await events->next();
    } catch (const std::logic_error& refused) {
        seen->emplace_back(refused.what());
    }
}

TEST_F(Stream, TwoTasksDoNotWaitForOneItem) {
    connect();
    auto events = ext::events(bus, "*");
    spawn(bus, read_first(&events, &seen));
    spawn(bus, read_refused(&events, &seen));
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("tarn::ext::stream: two tasks wait for the next item"));
    rest.emit("e");
    loop->drain();
    EXPECT_EQ(seen.back(), "e");
}

TEST_F(Stream, ATaskThatWasEndedWhileItWaitedLeavesTheStreamToOthers) {
    connect();
    auto events = ext::events(bus, "*");
    auto reading = spawn(bus, read_first(&events, &seen));
    loop->drain();
    reading.release();
    spawn(bus, read_first(&events, &seen));
    rest.emit("e");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("e"));
}

TEST_F(Stream, AMovedStreamGoesOn) {
    connect();
    auto first = ext::events(bus, "1");
    auto second = ext::events(bus, "2");
    first = std::move(second);
    spawn(bus, read_first(&first, &seen));
    rest.emit("1");
    rest.emit("2");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("2"));
}

task<> read_notifications(stream<ext::notification<door>> notifications, strings* seen) {
    while (const auto each = co_await notifications.next()) {
        seen->push_back(each->method + ' ' + each->data.name);
    }
}

TEST_F(Stream, NotificationsAreTakenAndTheirChangesReported) {
    rest.add_object("porter");
    connect();
    spawn(bus, read_notifications(
                   ext::notifications<door>(bus, "porter",
                                            [&](bus::subscription what, const std::error_code&) {
                                                seen.push_back(to_string(what));
                                            }),
                   &seen));
    loop->drain();
    const auto asked = rest.ask_from("porter", "may-open", {{"name", "front"}});
    EXPECT_EQ(asked.at(0)->status, make_error_code(msg::success));
    loop->drain();
    lose();
    EXPECT_THAT(seen, ElementsAre("subscribed", "may-open front", "lost"));
}

task<> read_changes(stream<ext::object_change> changes, strings* seen) {
    while (const auto each = co_await changes.next()) {
        seen->push_back(each->path + ' ' + to_string(each->what));
    }
}

TEST_F(Stream, ObjectsAreTakenAsTheyComeAndGo) {
    rest.add_object("net.lan");
    connect();
    spawn(bus, read_changes(ext::object_changes(bus, "net.*"), &seen));
    loop->drain();
    rest.add_object("net.wan");
    rest.remove_object("net.lan");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("net.lan appeared", "net.wan appeared", "net.lan gone"));
}

TEST_F(Stream, ATaskWhoseClientGoesIsDestroyedWithoutAReport) {
    const auto kept = std::make_shared<int>();
    auto short_lived = std::make_unique<testing::fake_client>(loop);
    spawn(*short_lived, [](stream<ext::event<>> events, std::shared_ptr<int>) -> task<> {
        co_await events.next();
    }(ext::events(*short_lived, "*"), kept));
    loop->drain();
    EXPECT_EQ(kept.use_count(), 2);
    short_lived.reset();
    EXPECT_EQ(kept.use_count(), 1);
}

} // namespace
} // namespace tarn::test
