/// What is on the bus: looked up, waited for and followed, while another process publishes and
/// withdraws, and through restarts of the bus.
#include "integration/peers.h"
#include "support/held_loop_thread.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;
using ::testing::ElementsAre;

class Presence : public peers_test {
protected:
    struct found {
        bool reported = false;
        std::vector<bus::object_info> objects;
        std::error_code code;
    };
    found look_up(const std::string& pattern) {
        auto seen = std::make_shared<found>();
        events().objects(pattern, [seen](const std::vector<bus::object_info>& objects,
                                         const std::error_code& code) {
            *seen = {true, objects, code};
        });
        run_until([&] { return seen->reported; });
        return *seen;
    }
    static std::vector<std::string> paths_of(const found& seen) {
        std::vector<std::string> paths;
        for (const auto& object : seen.objects) {
            paths.push_back(object.path);
        }
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    bus::presence_handler recorder() {
        return [this](bus::presence what, const std::string& path, std::uint32_t id) {
            const bool appeared = what == bus::presence::appeared;
            changes_.push_back((appeared ? "+" : "-") + path);
            EXPECT_EQ(present_.count(id), appeared ? 0U : 1U) << path;
            appeared ? void(present_[id] = path) : void(present_.erase(id));
        };
    }
    void wait_for_changes(std::size_t count) {
        run_hurried_until([&] { return changes_.size() >= count; });
    }

    std::vector<std::string> changes_;
    std::map<std::uint32_t, std::string> present_;
};

TEST_F(Presence, ObjectsAreFoundExactlyAndByPrefix) {
    connect();
    bus_peer peer;
    for (const char* path : {"net.lan", "net.wan", "system"}) {
        peer.tell(std::string("publish ") + path, "published 0");
    }
    EXPECT_THAT(paths_of(look_up("net.lan")), ElementsAre("net.lan"));
    EXPECT_THAT(paths_of(look_up("net.*")), ElementsAre("net.lan", "net.wan"));
    EXPECT_THAT(paths_of(look_up("*")), ElementsAre("net.lan", "net.wan", "system"));
    EXPECT_TRUE(look_up("net.").objects.empty());
    EXPECT_FALSE(look_up("none*").code);
}

TEST_F(Presence, AnObjectIsDescribedWithItsMethodsAndTheirFields) {
    connect();
    bus_peer peer;
    peer.tell("publish described", "published 0");
    const found seen = look_up("described");
    ASSERT_EQ(seen.objects.size(), 1U);
    const bus::object_info& object = seen.objects.front();
    EXPECT_NE(object.id, 0U);
    ASSERT_EQ(object.methods.size(), 3U);
    EXPECT_EQ(object.methods[0].name, "types");
    EXPECT_EQ(object.methods[1].name, "echo");
    EXPECT_EQ(object.methods[2].name, "bare");
    EXPECT_TRUE(object.methods[2].fields.empty());
    using type = bus::field_type;
    const std::vector<std::pair<std::string, type>> expected{
        {"anything", type::any}, {"array", type::array}, {"table", type::table},
        {"text", type::string},  {"int64", type::int64}, {"int32", type::int32},
        {"int16", type::int16},  {"flag", type::int8},   {"real", type::float64}};
    ASSERT_EQ(object.methods[0].fields.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(object.methods[0].fields[i].name, expected[i].first);
        EXPECT_EQ(object.methods[0].fields[i].type, expected[i].second) << expected[i].first;
    }
}

TEST_F(Presence, ObjectsOfThisProcessAreFoundAsWell) {
    connect();
    publish("mine", {{"run", {{}, {{"count", typeid(unsigned int)}}}}});
    const found seen = look_up("mine");
    ASSERT_EQ(seen.objects.size(), 1U);
    ASSERT_EQ(seen.objects[0].methods.size(), 1U);
    EXPECT_EQ(seen.objects[0].methods[0].fields.at(0).name, "count");
}

TEST_F(Presence, ALookUpReportsWhatIsWrongWithIt) {
    EXPECT_EQ(look_up("x").code, msg::connection_failed);
    connect();
    EXPECT_EQ(look_up("").code, msg::invalid_argument);
    EXPECT_EQ(look_up(std::string("a\0b", 3)).code, msg::invalid_argument);
    EXPECT_EQ(look_up(std::string(1048576, 'x')).code, msg::invalid_argument);
    EXPECT_FALSE(look_up("x").code);
}

TEST_F(Presence, AWatchReportsWhatIsThereThenWhatAppearsAndGoes) {
    connect();
    bus_peer peer;
    peer.tell("publish net.lan", "published 0");
    peer.tell("publish other", "published 0");
    const utils::scoped_link watching = events().on_object("net.*", recorder(), reporting());
    wait_until_registered();
    EXPECT_THAT(changes_, ElementsAre("+net.lan")); // reported before the registration
    peer.tell("publish net.wan", "published 0");
    peer.tell("withdraw net.lan", "withdrawn 0");
    peer.tell("publish net.lan", "published 0");
    peer.tell("withdraw other", "withdrawn 0");
    wait_for_changes(4);
    settle();
    EXPECT_THAT(changes_, ElementsAre("+net.lan", "+net.wan", "-net.lan", "+net.lan"));
}

TEST_F(Presence, EverythingIsGoneWithTheConnectionAndAppearsWithTheNextOne) {
    const utils::scoped_link watching = events().on_object("net.*", recorder());
    stay_connected();
    bus_peer peer;
    peer.tell("publish net.lan", "published 0");
    wait_for_changes(1);
    for (int round = 0; round < 50; ++round) {
        ASSERT_NO_FATAL_FAILURE(restart_bus());
        wait_for_changes(changes_.size());
        ASSERT_EQ(changes_.back(), "-net.lan") << round;
        ASSERT_TRUE(present_.empty());
        const std::size_t before = changes_.size();
        peer.reconnect();
        peer.tell("publish net.lan", "published 0");
        wait_for_changes(before + 1);
        ASSERT_EQ(changes_.back(), "+net.lan");
    }
}

TEST_F(Presence, CancelLeavesNoObjectPresentForTheWatch) {
    const utils::scoped_link watching = events().on_object("*", recorder());
    connect();
    publish("mine", {});
    wait_for_changes(1);
    bus().cancel();
    connect();
    wait_for_changes(2);
    EXPECT_THAT(changes_, ElementsAre("+mine", "-mine"));
}

TEST_F(Presence, WhatACancelEndsIsReportedWithoutAFurtherRequest) {
    const utils::scoped_link watching = events().on_object("mine", recorder());
    connect();
    publish("mine", {});
    wait_for_changes(1);
    {
        // The end of the connection comes when nothing of the cancellation is left to be done.
        const held_loop_thread held;
        bus().cancel();
        while (loop()->wait_for_task(std::chrono::milliseconds(0))) {
            loop()->run_one();
        }
    }
    wait_for_changes(2);
    EXPECT_THAT(changes_, ElementsAre("+mine", "-mine"));
}

TEST_F(Presence, AnObjectThatComesAndGoesWhileAWatchBeginsDoesNotStay) {
    connect();
    bus_peer peer;
    for (int round = 0; round < 50; ++round) {
        peer.write("blink lamp 20");
        const utils::scoped_link watching = events().on_object("lamp", recorder());
        peer.wait_for("blinked");
        look_up("*"); // everything before has arrived
        settle();
        ASSERT_TRUE(present_.empty()) << "in round " << round;
        // The next one has to register for these events itself.
    }
}

TEST_F(Presence, AWatchOfWhatIsNoPatternIsRefused) {
    connect();
    const utils::scoped_link watching = events().on_object("", recorder(), reporting());
    wait_until_registered();
    EXPECT_EQ(registered_.code(), msg::invalid_argument);
}

TEST_F(Presence, AWaitEndsWhenAllAreThereAtTheSameTime) {
    connect();
    bus_peer peer;
    peer.tell("publish one", "published 0");
    outcome all;
    events().wait_for({"one", "two", "three"}, seconds(0), all.handler());
    settle();
    peer.tell("publish two", "published 0");
    peer.tell("withdraw one", "withdrawn 0");
    peer.tell("publish three", "published 0");
    look_up("*"); // everything before has arrived
    settle();
    EXPECT_FALSE(all.reported());
    peer.tell("publish one", "published 0");
    run_until([&] { return all.reported(); });
    EXPECT_FALSE(all.code());
}

TEST_F(Presence, AWaitForWhatIsThereEndsAtOnceAndForNothingToo) {
    connect();
    publish("mine", {});
    outcome one;
    outcome none;
    const utils::link waiting = events().wait_for({"mine"}, seconds(5), one.handler());
    EXPECT_TRUE(waiting.active());
    events().wait_for({}, seconds(5), none.handler());
    EXPECT_FALSE(none.reported());
    run_until([&] { return one.reported() && none.reported(); });
    EXPECT_FALSE(one.code());
    EXPECT_FALSE(none.code());
    EXPECT_FALSE(waiting.active());
}

TEST_F(Presence, AWaitGoesOnThroughRestartsOfTheBus) {
    outcome all;
    events().wait_for({"one", "two"}, seconds(0), all.handler());
    stay_connected();
    bus_peer peer;
    for (int round = 0; round < 10; ++round) {
        peer.tell("publish one", "published 0");
        restart_bus();
        peer.reconnect();
    }
    EXPECT_FALSE(all.reported());
    peer.tell("publish two", "published 0");
    settle();
    peer.tell("publish one", "published 0");
    run_hurried_until([&] { return all.reported(); });
    EXPECT_FALSE(all.code());
}

TEST_F(Presence, AWaitEndsWithItsLimitItsLinkOrACancel) {
    connect();
    outcome late;
    outcome cancelled;
    outcome released;
    outcome invalid;
    events().wait_for({"none"}, seconds(3), late.handler());
    utils::link link = events().wait_for({"none"}, seconds(3), released.handler());
    events().wait_for({"none*"}, seconds(3), invalid.handler());
    link.release();
    EXPECT_FALSE(link.active());
    settle();
    EXPECT_EQ(invalid.code(), msg::invalid_argument);
    loop()->advance(seconds(3));
    run_until([&] { return late.reported(); });
    EXPECT_EQ(late.code(), msg::timeout);
    events().wait_for({"none"}, seconds(0), cancelled.handler());
    bus().cancel();
    EXPECT_EQ(cancelled.code(), error::generic::aborted);
    EXPECT_FALSE(released.reported());
}

} // namespace
} // namespace tarn::test
