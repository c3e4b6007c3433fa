/// Events whose data are C++ types.
#include "tarn/ext/events.h"

#include "fake_fixture.h"
#include "tarn/ext/reply.h"

#include <map>
#include <memory>
#include <stdexcept>

namespace tarn::test {
namespace {

using error::msg;
using ext::result;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Events = fake_fixture;

TEST_F(Events, TheDataAreTheStructureOfTheHandler) {
    connect();
    const auto link = ext::listen(bus, "door.*", [&](const std::string& id, const door& data) {
        seen.push_back(id + ' ' + data.name + ' ' + std::to_string(data.floor.value_or(-1)));
    });
    rest.emit("door.open", {{"name", "front"}, {"floor", 2}, {"more", true}});
    rest.emit("door.shut", {{"name", "back"}});
    rest.emit("window.open", {{"name", "left"}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("door.open front 2", "door.shut back -1"));
}

TEST_F(Events, TheDataAreAReplyForAGenericLambda) {
    connect();
    const auto link = ext::listen(bus, "*", [&](const std::string& id, const auto& data) {
        seen.push_back(id + ' ' + data.template at<std::string>("name"));
    });
    rest.emit("door.open", {{"name", "front"}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("door.open front"));
}

TEST_F(Events, TheDataAreATableOrAMapWhereThatIsAskedFor) {
    connect();
    const auto table = ext::listen(bus, "*", [&](const std::string&, const blob::table& data) {
        seen.push_back("table of " + std::to_string(data.size()));
    });
    const auto map = ext::listen<std::map<std::string, int>>(
        bus, "*", [&](const std::string&, const auto& data) {
            seen.push_back("a is " + std::to_string(data.at("a")));
        });
    rest.emit("e", {{"a", 1}, {"b", 2}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("table of 2", "a is 1"));
}

TEST_F(Events, AMismatchGoesToItsHandlerAndNotToTheOther) {
    connect();
    ext::listen_options how;
    how.on_mismatch = [&](const std::string& id, const ext::mismatch& wrong) {
        seen.push_back(id + ": " + wrong.what());
    };
    const auto counts = [&](const std::string& id, const door&) {
        seen.push_back(id);
    };
    const auto heeded = ext::listen(bus, "*", counts, how);
    const auto ignored = ext::listen(bus, "*", counts);
    rest.emit("bad", {{"name", 5}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("bad: name: expected a string, found a 32-bit integer"));
}

TEST_F(Events, AListenerIsRestoredAfterEveryReconnectionUntilItsLinkGoes) {
    {
        const auto link = ext::listen(
            bus, "*", [&](const std::string& id, const ext::reply&) { seen.push_back(id); });
        connect();
        rest.emit("one");
        loop->drain();
        lose();
        connect();
        rest.emit("two");
        loop->drain();
        EXPECT_THAT(rest.listening(), ElementsAre("*"));
    }
    rest.emit("three");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("one", "two"));
    EXPECT_THAT(rest.listening(), IsEmpty());
}

TEST_F(Events, TheOptionsOfTheBusArePassedOn) {
    connect();
    ext::listen_options how;
    how.most_undelivered = 1;
    how.on_dropped = [&](std::uint64_t count) {
        seen.push_back("dropped " + std::to_string(count));
    };
    how.on_registered = [&](const std::error_code& code) {
        seen.push_back(code.message());
    };
    // The handler may be movable only.
    const auto link = ext::listen(
        bus, "*",
        [this, owned = std::make_unique<std::string>("e")](
            const std::string& id, const ext::reply&) { seen.push_back(*owned + id); },
        how);
    rest.emit("1");
    rest.emit("2");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("dropped 1", "Success", "e2"));
}

TEST_F(Events, WhatTheHandlerThrowsPassesThroughTheLoop) {
    connect();
    const auto link = ext::listen(bus, "*", [&](const std::string& id, const ext::reply&) {
        seen.push_back(id);
        throw std::runtime_error("handler");
    });
    rest.emit("one");
    rest.emit("two");
    EXPECT_THROW(loop->drain(), std::runtime_error);
    EXPECT_THROW(loop->drain(), std::runtime_error);
    EXPECT_THAT(seen, ElementsAre("one", "two"));
}

TEST_F(Events, AnEventIsSentAsAStructureATableOrAMap) {
    connect();
    std::vector<std::error_code> outcomes;
    const auto keep = [&](const result<void>& outcome) {
        outcomes.push_back(outcome.error());
    };
    ext::send_event(bus, "structure", door{"front", 2}, keep);
    ext::send_event(bus, "table", {{"name", "back"}}, keep);
    ext::send_event(bus, "map", std::map<std::string, int>{{"a", 1}}, keep);
    ext::send_event(bus, "silent", {}, nullptr);
    ext::send_event(bus, "ubus.refused", {}, keep);
    EXPECT_THAT(outcomes, IsEmpty());
    loop->drain();
    EXPECT_THAT(outcomes, ElementsAre(std::error_code(msg::success), msg::success, msg::success,
                                      msg::permission_denied));
    ASSERT_EQ(rest.sent_events().size(), 5U);
    EXPECT_EQ(rest.sent_events()[0].data.find("floor")->second.get<int>(), 2);
    EXPECT_EQ(rest.sent_events()[2].data.count("a"), 1U);
    EXPECT_THROW(ext::send_event(bus, "no table", 5, keep), std::invalid_argument);
}

} // namespace
} // namespace tarn::test
