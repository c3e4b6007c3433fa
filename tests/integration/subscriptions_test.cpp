/// Subscriptions to objects of a foreign process, which comes and goes, as the bus does.
#include "integration/peers.h"

#include <gmock/gmock.h>

#include <optional>
#include <stdexcept>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using ::testing::ElementsAre;

class Subscriptions : public peers_test {
protected:
    bus::notification_handler recorder(std::optional<std::error_code> answer = std::error_code()) {
        return [this, answer](const std::string& method, const context& call) {
            seen_.push_back(method + " " + std::to_string(number(call->args)));
            contexts_.push_back(call);
            if (answer) {
                contexts_.pop_back();
            }
            return answer;
        };
    }
    bus::subscription_handler changes() {
        return [this](bus::subscription now, const std::error_code& reason) {
            const char* const names[] = {"subscribed", "lost", "refused"};
            seen_.push_back(std::string(names[static_cast<int>(now)]) +
                            (reason ? " " + reason.message() : ""));
        };
    }
    void wait_for(std::size_t count) {
        run_hurried_until([&] { return seen_.size() >= count; });
    }

    /// The answer that the peer has got, when it has no subscriber any more either; these come in
    /// any order.
    static std::string answer_at_the_end(bus_peer& peer) {
        std::string answer;
        bool alone = false;
        while (answer.empty() || !alone) {
            const std::string line = peer.wait_for("");
            answer = line.compare(0, 6, "answer") == 0 ? line : answer;
            alone = alone || line == "subscribers source 0";
        }
        return answer;
    }

    std::vector<std::string> seen_;
    std::vector<context> contexts_;
};

TEST_F(Subscriptions, NotificationsArriveFromWhenTheObjectAppears) {
    connect();
    const utils::scoped_link subscribed = events().subscribe("source", recorder(), changes());
    bus_peer peer;
    peer.tell("publish source", "subscribers source 1");
    peer.tell("notify source changed 4", "notified 0");
    wait_for(2);
    EXPECT_THAT(seen_, ElementsAre("subscribed", "changed 4"));
}

TEST_F(Subscriptions, AnObjectThatIsThereIsSubscribedToAtOnce) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    const utils::scoped_link subscribed = events().subscribe("source", recorder(), changes());
    peer.wait_for("subscribers source 1");
    wait_for(1);
    EXPECT_THAT(seen_, ElementsAre("subscribed"));
}

TEST_F(Subscriptions, ThePublisherGetsTheAnswerOfTheHandler) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    const utils::scoped_link subscribed =
        events().subscribe("source", recorder(make_error_code(msg::permission_denied)));
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    wait_for(1);
    EXPECT_EQ(peer.wait_for("answer"), "answer 6");
    EXPECT_EQ(peer.wait_for("asked"), "asked 0");
}

TEST_F(Subscriptions, TheHandlerMayAnswerLaterAndWithReplies) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    const utils::scoped_link subscribed = events().subscribe("source", recorder(std::nullopt));
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    wait_for(1);
    EXPECT_FALSE(contexts_.at(0)->expired());
    contexts_[0]->send({{"n", 41}}, {});
    contexts_[0]->respond({});
    EXPECT_EQ(peer.wait_for("reply"), "reply 41");
    EXPECT_EQ(peer.wait_for("answer"), "answer 0");
}

TEST_F(Subscriptions, WithoutAnswersThePublisherIsAnsweredAtOnce) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    bus::subscribe_options how;
    how.answers = false;
    const utils::scoped_link subscribed = events().subscribe(
        "source", recorder(make_error_code(msg::permission_denied)), changes(), how);
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    EXPECT_EQ(peer.wait_for("answer"), "answer 0"); // although this loop does not turn
    wait_for(2);
    EXPECT_THAT(seen_, ElementsAre("subscribed", "may 1"));
}

TEST_F(Subscriptions, TheContextOfANotificationThatNeedsNoAnswerHasExpired) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    bool expired = false;
    bus::subscribe_options how;
    how.answers = false;
    const utils::scoped_link subscribed = events().subscribe(
        "source",
        [&](const std::string&, const context& call) -> std::optional<std::error_code> {
            expired = call->expired();
            seen_.emplace_back("called");
            return std::nullopt;
        },
        {}, how);
    peer.wait_for("subscribers source 1");
    peer.tell("notify source may 1", "notified 0");
    wait_for(1);
    EXPECT_TRUE(expired);
}

TEST_F(Subscriptions, SubscriptionsWithoutAHandlerAnswerWithSuccess) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    const utils::scoped_link subscribed = events().subscribe("source", {}, changes());
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    EXPECT_EQ(peer.wait_for("answer"), "answer 0");
}

TEST_F(Subscriptions, AWithdrawnObjectIsLostAndSubscribedToWhenItIsPublishedAnew) {
    connect();
    const utils::scoped_link subscribed = events().subscribe("source", recorder(), changes());
    bus_peer peer;
    for (std::size_t round = 0; round < 50; ++round) {
        peer.tell("publish source", "subscribers source 1");
        peer.tell("withdraw source", "withdrawn 0");
        wait_for(2 * round + 2);
        ASSERT_EQ(seen_[2 * round], "subscribed");
        ASSERT_EQ(seen_[2 * round + 1], "lost Not found");
    }
}

TEST_F(Subscriptions, APublisherThatDiesIsLost) {
    connect();
    const utils::scoped_link subscribed = events().subscribe("source", recorder(), changes());
    for (int round = 0; round < 5; ++round) {
        seen_.clear();
        bus_peer peer;
        peer.tell("publish source", "published 0");
        wait_for(1);
        peer.kill();
        wait_for(2);
        EXPECT_THAT(seen_, ElementsAre("subscribed", "lost Not found"));
    }
}

TEST_F(Subscriptions, SubscriptionsAreRestoredThroughFiftyRestartsOfTheBus) {
    const utils::scoped_link subscribed = events().subscribe("source", recorder(), changes());
    stay_connected();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    wait_for(1);
    for (int round = 0; round < 50; ++round) {
        seen_.clear();
        restart_bus();
        peer.reconnect();
        peer.tell("publish source", "subscribers source 1");
        peer.tell("notify source round " + std::to_string(round), "notified 0");
        wait_for(3);
        ASSERT_THAT(seen_, ElementsAre("lost Connection failed", "subscribed",
                                       "round " + std::to_string(round)));
    }
}

TEST_F(Subscriptions, TwoSubscriptionsToOneObjectAnswerEachForItself) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    const utils::scoped_link first = events().subscribe("source", recorder());
    const utils::scoped_link second =
        events().subscribe("source", recorder(make_error_code(msg::timeout)));
    const auto subscribed = [&] {
        on_loop_thread([] {});
        return true;
    };
    run_until(subscribed);
    peer.write("ask source may 1");
    wait_for(2);
    const std::string one = peer.wait_for("answer");
    const std::string other = peer.wait_for("answer");
    EXPECT_TRUE((one == "answer 0" && other == "answer 7") ||
                (one == "answer 7" && other == "answer 0"));
}

TEST_F(Subscriptions, ReleasingTheLinkUnsubscribesAndAnswersWhatIsUndelivered) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    for (int round = 0; round < 50; ++round) {
        seen_.clear();
        const auto before = events().stats().notifications_received;
        utils::link subscribed = events().subscribe("source", recorder());
        peer.wait_for("subscribers source 1");
        peer.write("ask source may 1");
        while (events().stats().notifications_received == before) {} // as soon as it arrives
        subscribed.release(); // perhaps while the private thread is passing it on
        EXPECT_EQ(answer_at_the_end(peer), seen_.empty() ? "answer 9" : "answer 0");
    }
}

TEST_F(Subscriptions, AHandlerThatReleasesItsLinkStillAnswers) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    utils::link subscribed;
    subscribed = events().subscribe("source", [&](const std::string&, const context&) {
        subscribed.release();
        EXPECT_FALSE(subscribed.active());
        return make_error_code(msg::permission_denied);
    });
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    run_until([&] { return !subscribed.active(); });
    EXPECT_EQ(answer_at_the_end(peer), "answer 6");
}

TEST_F(Subscriptions, AHandlerWhoseLinkIsReleasedMeanwhileStillAnswers) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    utils::link subscribed;
    subscribed = events().subscribe("source", [&](const std::string&, const context& call) {
        std::thread([&] { subscribed.release(); }).join();
        on_loop_thread([] {}); // what the release has posted is done
        call->send({{"n", 4}}, {});
        return std::error_code();
    });
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    run_until([&] { return !subscribed.active(); });
    EXPECT_EQ(answer_at_the_end(peer), "answer 0");
}

TEST_F(Subscriptions, AHandlerThatReleasesItsLinkAndThrowsUnsubscribes) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    utils::link subscribed;
    subscribed = events().subscribe(
        "source", [&](const std::string&, const context&) -> std::optional<std::error_code> {
            subscribed.release();
            throw std::runtime_error("thrown by a handler");
        });
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    EXPECT_THROW(run_until([&] { return !subscribed.active(); }), std::runtime_error);
    EXPECT_EQ(answer_at_the_end(peer), "answer 0"); // the context has been destroyed
}

TEST_F(Subscriptions, AContextThatIsKeptIsAnsweredWhenTheLinkIsReleased) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    utils::link subscribed = events().subscribe("source", recorder(std::nullopt));
    peer.wait_for("subscribers source 1");
    peer.write("ask source may 1");
    wait_for(1);
    subscribed.release();
    EXPECT_EQ(answer_at_the_end(peer), "answer 9");
    EXPECT_TRUE(contexts_.front()->expired());
    outcome sent;
    contexts_.front()->send({}, sent.handler());
    contexts_.front()->respond(error::msg::success); // too late
    run_until([&] { return sent.reported(); });
    EXPECT_EQ(sent.code(), error::msg::connection_failed);
    settle();
}

TEST_F(Subscriptions, AnObjectOfThisProcessIsRefused) {
    connect();
    publish("mine", {});
    const utils::scoped_link subscribed = events().subscribe("mine", recorder(), changes());
    wait_for(1);
    EXPECT_THAT(seen_, ElementsAre("refused Invalid argument"));
}

TEST_F(Subscriptions, APathThatNamesNoObjectIsRefused) {
    const utils::scoped_link first = events().subscribe("", recorder(), changes());
    const utils::scoped_link second = events().subscribe("many*", recorder(), changes());
    connect();
    wait_for(2);
    EXPECT_THAT(seen_, ElementsAre("refused Invalid argument", "refused Invalid argument"));
}

TEST_F(Subscriptions, TheOldestNotificationsAreDroppedAndAnsweredForAHandlerThatIsBehind) {
    connect();
    bus_peer peer;
    peer.tell("publish source", "published 0");
    std::uint64_t dropped = 0;
    bus::subscribe_options how;
    how.most_undelivered = 2;
    how.on_dropped = [&](std::uint64_t count) {
        dropped += count;
    };
    const utils::scoped_link subscribed = events().subscribe("source", recorder(), {}, how);
    peer.wait_for("subscribers source 1");
    for (int n = 0; n < 3; ++n) {
        peer.write("ask source may " + std::to_string(n));
    }
    EXPECT_EQ(peer.wait_for("answer"), "answer 9"); // of the oldest
    wait_for(2);
    EXPECT_EQ(dropped, 1U);
    EXPECT_THAT(seen_, ElementsAre("may 1", "may 2"));
}

} // namespace
} // namespace tarn::test
