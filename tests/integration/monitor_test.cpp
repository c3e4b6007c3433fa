/// The monitor: what passes the daemon between other processes.
#include "integration/peers.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace tarn::test {
namespace {

using error::msg;

class Monitor : public peers_test {
protected:
    void start() {
        watching_ =
            events().monitor([this](const bus::message& m) { seen_.push_back(m); }, reporting());
    }
    const bus::message* find(const std::string& type, const std::string& attribute) const {
        const auto found =
            std::find_if(seen_.begin(), seen_.end(), [&](const bus::message& message) {
                return bus::name_of(message.type) == type && message.attributes.count(attribute);
            });
        return found == seen_.end() ? nullptr : &*found;
    }

    std::vector<bus::message> seen_;
    utils::scoped_link watching_;
};

TEST_F(Monitor, EveryMessageArrivesWithItsAttributes) {
    connect();
    start();
    wait_until_registered();
    ASSERT_FALSE(registered_.code());
    bus_peer peer;
    peer.tell("publish watched", "published 0");
    peer.tell("send weather 5", "sent 0");
    run_until([&] { return find("add_object", "objpath") && find("invoke", "method"); });
    const bus::message& added = *find("add_object", "objpath");
    EXPECT_FALSE(added.sent);
    EXPECT_NE(added.client, 0U);
    EXPECT_EQ(added.attributes.find("objpath")->second.get<std::string>(), "watched");
    const auto& methods = added.attributes.find("signature")->second.get<bus::table>();
    EXPECT_EQ(methods.count("echo"), 1U);
    const bus::message& sent = *find("invoke", "method");
    EXPECT_EQ(sent.attributes.find("method")->second.get<std::string>(), "send");
    EXPECT_EQ(sent.attributes.find("objid")->second.get<unsigned int>(), 1U);
    const auto& data = sent.attributes.find("data")->second.get<bus::table>();
    EXPECT_EQ(data.find("id")->second.get<std::string>(), "weather");
    EXPECT_EQ(number(data.find("data")->second.get<bus::table>()), 5);
}

TEST_F(Monitor, MessagesToClientsAreMarkedAsSent) {
    connect();
    start();
    wait_until_registered();
    bus_peer peer;
    peer.tell("publish watched", "published 0");
    const auto answer = [&] {
        return std::any_of(seen_.begin(), seen_.end(), [](const bus::message& message) {
            return message.sent && bus::name_of(message.type) == std::string("status");
        });
    };
    run_until(answer);
}

TEST_F(Monitor, ItIsRestoredWithTheConnection) {
    start();
    stay_connected();
    for (int round = 0; round < 5; ++round) {
        restart_bus();
        seen_.clear();
        bus_peer peer;
        peer.tell("publish watched", "published 0");
        run_until([&] { return find("add_object", "objpath") != nullptr; });
    }
    EXPECT_EQ(registered_.count(), 6U);
}

TEST_F(Monitor, NothingArrivesAfterItsLinkIsReleasedAndTheNextOneBeginsAnew) {
    connect();
    start();
    wait_until_registered();
    watching_.release();
    seen_.clear();
    bus_peer peer;
    peer.tell("publish watched", "published 0");
    settle();
    EXPECT_TRUE(seen_.empty());
    start();
    wait_until_registered(2);
    peer.tell("publish other", "published 0");
    run_until([&] { return find("add_object", "objpath") != nullptr; });
}

TEST_F(Monitor, NumbersOfMessagesHaveTheirNames) {
    EXPECT_STREQ(bus::name_of(0), "hello");
    EXPECT_STREQ(bus::name_of(5), "invoke");
    EXPECT_STREQ(bus::name_of(11), "monitor");
    EXPECT_STREQ(bus::name_of(12), "");
    EXPECT_STREQ(bus::name_of(-1), "");
}

} // namespace
} // namespace tarn::test
