/// Notifications and subscriptions that end while messages about them are on their way.
#include "robustness/misbehaving_bus.h"

#include "support/held_loop_thread.h"
#include "tarn/bus.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>

namespace tarn::test {
namespace {

using answer = scripted_bus::answer;
using afterwards = scripted_bus::afterwards;
using ::testing::ElementsAre;

class LateNotification : public misbehaving_bus_test {
protected:
    /// Subscribes to the foreign object, and waits for that.
    utils::link subscribe(bool handles) {
        const auto keep_the_subscriber = [this](const wire::bytes& healthy, const auto&) {
            subscriber_ = scripted_.newest_object();
            return answer{healthy};
        };
        scripted_.on_next(wire::subscribe, keep_the_subscriber);
        const tarn::bus::notification_handler success = [](const auto&, const auto&) {
            return std::error_code();
        };
        const utils::link link = bus().get_bus().subscribe(scripted_bus::remote_path,
                                                           handles ? success : nullptr, changes());
        run_until([this] { return changes_ == std::vector<std::string>{"subscribed"}; });
        return link;
    }
    tarn::bus::subscription_handler changes() {
        return [this](tarn::bus::subscription now, const std::error_code&) {
            const std::array<const char*, 3> names{"subscribed", "lost", "refused"};
            changes_.emplace_back(names.at(static_cast<std::size_t>(now)));
        };
    }
    std::vector<std::string> changes_;
    std::atomic<std::uint32_t> subscriber_{0};
};

TEST_F(LateNotification, IsAnsweredWithAnErrorWhenItMeetsTheReleaseOnItsWay) {
    ASSERT_NO_FATAL_FAILURE(connect());
    utils::link link = subscribe(true);
    std::uint16_t notified = 0;
    {
        const held_loop_thread held;
        notified = scripted_.call(subscriber_, "changed"); // waits in the socket
        link.release();
    }
    EXPECT_EQ(scripted_.wait_for_status(notified), 9);
}

TEST_F(LateNotification, IsAnsweredWithSuccessWhenNoHandlerHasBeenReleased) {
    ASSERT_NO_FATAL_FAILURE(connect());
    utils::link link = subscribe(false);
    std::uint16_t notified = 0;
    {
        const held_loop_thread held;
        notified = scripted_.call(subscriber_, "changed");
        link.release();
    }
    EXPECT_EQ(scripted_.wait_for_status(notified), 0);
}

TEST_F(LateNotification, IsAnsweredThoughItWasSentBeforeTheDaemonReadsOfTheEnd) {
    ASSERT_NO_FATAL_FAILURE(connect());
    utils::link link = subscribe(true);
    constexpr std::uint16_t number = 0x7001;
    scripted_.on_next(wire::unsubscribe, [&](const wire::bytes& healthy, const auto&) {
        return answer{scripted_bus::call_message(number, wire::objid(subscriber_) +
                                                             wire::method("changed") +
                                                             wire::data_of({})) +
                      healthy};
    });
    link.release();
    EXPECT_EQ(scripted_.wait_for_status(number), 9);
}

TEST_F(LateNotification, AnObjectThatIsReplacedWhileItIsLookedForIsSubscribedToOnce) {
    ASSERT_NO_FATAL_FAILURE(connect());
    constexpr std::uint32_t replaced = scripted_bus::remote_id + 1;
    const auto replace = [this](const wire::bytes& healthy, const auto&) {
        return answer{scripted_.remote_event(scripted_bus::gone, replaced) +
                      scripted_.remote_event(scripted_bus::appeared) + healthy};
    };
    const auto appear = [&, this](const wire::bytes& healthy, const auto&) {
        scripted_.then_on_next(wire::lookup, replace);
        return answer{healthy + scripted_.remote_event(scripted_bus::appeared, replaced)};
    };
    // With the second of the two requests for the events of objects, before the look-up.
    scripted_.on_next(wire::invoke, appear, 1);
    const utils::scoped_link link =
        bus().get_bus().subscribe(scripted_bus::remote_path, {}, changes());
    run_until([this] { return !changes_.empty(); });
    catch_up();
    catch_up(); // what the first has found to do
    EXPECT_THAT(changes_, ElementsAre("subscribed"));
    EXPECT_EQ(scripted_.received(wire::subscribe), 1U);
}

TEST_F(LateNotification, OneThatIsGivenUpWhenNothingCanBeSentIsForgottenByLibubus) {
    ASSERT_NO_FATAL_FAILURE(connect());
    outcome ready;
    bus().add_object("own", {}, ready.handler());
    run_until([&] { return ready.reported(); });
    scripted_.on_next(wire::notify, [](const auto&, const auto&) {
        return answer{{}, afterwards::shut_reading};
    });
    auto link = std::make_unique<utils::scoped_link>(
        bus().get_bus().notify("own", "may", {}, std::chrono::seconds::zero(),
                               [](const auto&, const auto&) { FAIL() << "released"; }));
    ASSERT_TRUE(scripted_.wait_for_reaction());
    {
        const held_loop_thread held;
        bus().get_bus().notify("own", "cannot be written", {}, {});
        link.reset(); // nothing else keeps the operation then
    }
    run_until_state(client::state::disconnected);
    settle();
}

} // namespace
} // namespace tarn::test
