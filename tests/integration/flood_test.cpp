/// Many events for many listeners: none is lost while they are read, and what is lost by one that
/// is behind is counted.
#include "integration/peers.h"

#include <algorithm>
#include <chrono>
#include <iostream>

namespace tarn::test {
namespace {

constexpr int listeners = 20;
constexpr int burst = 100;
constexpr int bursts = 100;
constexpr int events_sent = burst * bursts;

class Flood : public peers_test {
protected:
    /// The events that one listener has received: in order, and how many.
    struct reader {
        int next = 0;
        std::uint64_t received = 0;
        std::uint64_t dropped = 0;
        bool in_order = true;
    };

    utils::scoped_link listen(reader& in, const bus::options& how) {
        return events().listen(
            "flood",
            [&in](const std::string&, const bus::table& data) {
                const int n = number(data);
                in.in_order = in.in_order && (n >= in.next || n == 0);
                in.next = n + 1;
                ++in.received;
            },
            how);
    }

    /// Has `peer` send so many events in bursts, each when the private thread has read the one
    /// before: daemons of before mid 2025 lose what they had to queue for a reader that is behind.
    template <class Between>
    void send_bursts(bus_peer& peer, int count, const Between& between) {
        for (int sent = 0; sent < count; sent += burst) {
            peer.tell("burst flood " + std::to_string(burst), "burst sent");
            const auto due = static_cast<std::uint64_t>(sent) + burst;
            run_until([&] {
                between();
                return events().stats().events_received >= due;
            });
        }
    }
};

TEST_F(Flood, TenThousandEventsReachEachOfTwentyListenersInOrder) {
    connect();
    std::vector<reader> readers(listeners);
    std::vector<utils::scoped_link> links;
    for (reader& in : readers) {
        links.push_back(listen(in, reporting()));
    }
    wait_until_registered(listeners);
    bus_peer peer;
    const auto start = std::chrono::steady_clock::now();
    send_bursts(peer, events_sent, [] { loop()->drain(); });
    run_until([&] {
        return std::all_of(readers.begin(), readers.end(),
                           [](const reader& in) { return in.received >= events_sent; });
    });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::cout << static_cast<int>(events_sent / took.count()) << " events a second to each of "
              << listeners << " listeners\n";
    for (const reader& in : readers) {
        EXPECT_EQ(in.received, static_cast<std::uint64_t>(events_sent));
        EXPECT_TRUE(in.in_order);
    }
    EXPECT_EQ(events().stats().dropped, 0U);
}

TEST_F(Flood, TwentyProcessesReceiveTheSame) {
    connect();
    std::list<bus_peer> peers;
    for (int i = 0; i < listeners; ++i) {
        peers.emplace_back();
        peers.back().tell("listen flood", "listening 0");
    }
    // Sent as fast as the daemon takes them: a listener that reads must not fall so far behind that
    // the daemon drops.
    outcome sent;
    for (int n = 0; n < events_sent; ++n) {
        events().send_event("flood", {{"n", n}}, sent.handler());
        if (n % 100 == 99) {
            run_until([&] { return sent.count() == static_cast<std::size_t>(n) + 1; });
        }
    }
    for (bus_peer& peer : peers) {
        peer.wait_for("event flood " + std::to_string(events_sent - 1));
    }
}

TEST_F(Flood, AListenerThatIsBehindIsToldHowManyWereDroppedAndTheOthersLoseNothing) {
    connect();
    reader slow;
    reader quick;
    bus::options few = reporting();
    few.most_undelivered = 100;
    few.on_dropped = [&](std::uint64_t count) {
        slow.dropped += count;
    };
    const utils::scoped_link first = listen(slow, few);
    const utils::scoped_link second = listen(quick, reporting());
    wait_until_registered(2);
    bus_peer peer;
    constexpr int count = 5000;
    for (int sent = 0; sent < count; sent += burst) { // this loop does not turn meanwhile
        peer.tell("burst flood " + std::to_string(burst), "burst sent");
        const auto due = static_cast<std::uint64_t>(sent) + burst;
        while (events().stats().events_received < due) {
            on_loop_thread([] {});
        }
    }
    run_until([&] { return quick.received == count; });
    run_until([&] { return slow.received + slow.dropped == count; });
    EXPECT_GT(slow.dropped, 0U);
    EXPECT_EQ(events().stats().dropped, slow.dropped);
    EXPECT_TRUE(slow.in_order);
    EXPECT_EQ(slow.next, burst);
}

} // namespace
} // namespace tarn::test
