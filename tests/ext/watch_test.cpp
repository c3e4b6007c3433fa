/// Following the state of the connection.
#include "tarn/ext/watch.h"

#include "client/client_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace tarn::test {
namespace {

using state = client::state;
using ext::watch;
using ::testing::ElementsAre;

class Watch : public client_on_bus_test {
protected:
    utils::scoped_link record() {
        return watch(bus(), [this](state s) { seen_.push_back(s); });
    }

    std::vector<state> seen_;
};

TEST_F(Watch, BeginsWithThePresentStateOnTheLoop) {
    const auto link = record();
    EXPECT_TRUE(link.active());
    EXPECT_THAT(seen_, ElementsAre()) << "never inside watch()";
    loop()->drain();
    EXPECT_THAT(seen_, ElementsAre(state::disconnected));
}

TEST_F(Watch, ReportsEveryChangeOnceAndNeverInsideAnOperation) {
    const auto link = record();
    loop()->drain();
    connect();
    loop()->drain();
    EXPECT_THAT(seen_, ElementsAre(state::disconnected, state::connecting, state::connected));
    bus().cancel();
    EXPECT_EQ(seen_.size(), 3U) << "not inside cancel()";
    loop()->drain();
    EXPECT_EQ(seen_.back(), state::disconnected);
}

TEST_F(Watch, ChangesBeforeTheFirstReportAreTheStateThatItReports) {
    const auto link = record();
    outcome connected;
    bus().connect(connected.handler());
    EXPECT_EQ(bus().get_state(), state::connecting);
    loop()->run_one();
    loop()->run_one();
    EXPECT_THAT(seen_, ElementsAre(state::connecting));
    run_until([&] { return connected.reported(); });
    loop()->drain();
    EXPECT_THAT(seen_, ElementsAre(state::connecting, state::connected));
}

TEST_F(Watch, OfSeveralChangesBeforeTheFirstReportTheLastIsReported) {
    const auto link = record();
    bus().connect({});
    bus().cancel();
    loop()->drain();
    EXPECT_THAT(seen_, ElementsAre(state::disconnected));
}

TEST_F(Watch, OneThatBeginsInsideAChangeReportsThatStateOnce) {
    utils::scoped_link inner;
    const utils::scoped_link outer = bus().notify_on_state_change([&](state s) {
        if (s == state::connecting) {
            inner = record();
        }
    });
    connect();
    loop()->drain();
    EXPECT_EQ(std::count(seen_.begin(), seen_.end(), state::connected), 1);
    EXPECT_LE(std::count(seen_.begin(), seen_.end(), state::connecting), 1);
}

TEST_F(Watch, NothingIsCalledOnceTheLinkIsGone) {
    const auto owned = std::make_shared<int>();
    {
        const auto link = watch(bus(), [this, owned](state s) { seen_.push_back(s); });
        EXPECT_GT(owned.use_count(), 1);
    }
    EXPECT_EQ(owned.use_count(), 1) << "the handler is destroyed at once";
    loop()->drain();
    connect();
    EXPECT_THAT(seen_, ElementsAre());
}

TEST_F(Watch, TheHandlerMayEndItsOwnWatch) {
    utils::scoped_link link;
    const auto owned = std::make_shared<int>();
    link = watch(bus(), [this, &link, owned](state s) {
        seen_.push_back(s);
        link.release();
        EXPECT_GT(owned.use_count(), 1) << "lives until it returns";
    });
    connect();
    loop()->drain();
    EXPECT_EQ(seen_.size(), 1U);
    EXPECT_EQ(owned.use_count(), 1);
}

TEST_F(Watch, ChangesBehindOneWhoseHandlerThrowsAreReported) {
    const auto link = watch(bus(), [this](state s) {
        seen_.push_back(s);
        if (s == state::connecting) {
            throw std::runtime_error("thrown by the handler");
        }
    });
    loop()->drain();
    outcome connected;
    bus().connect(connected.handler());
    EXPECT_THROW(loop()->run_until([&] { return seen_.back() == state::connecting; }, limit),
                 std::runtime_error);
    run_until([&] { return seen_.back() == state::connected; });
    EXPECT_THAT(seen_, ElementsAre(state::disconnected, state::connecting, state::connected));
}

TEST_F(Watch, FollowsChangesThatThreadsMakeWithoutLosingOrDoublingAny) {
    std::vector<state> told;
    std::mutex lock;
    const utils::scoped_link subscribed = bus().notify_on_state_change([&](state s) {
        const std::lock_guard<std::mutex> guard(lock);
        told.push_back(s);
    });
    const auto link = record();
    loop()->drain();
    std::atomic<int> running{2};
    const auto change = [&] {
        for (int n = 0; n < 200; ++n) {
            bus().connect({});
            bus().disconnect({});
        }
        --running;
        loop()->post([] {});
    };
    std::thread one(change);
    std::thread other(change);
    run_until([&] { return running == 0 && bus().get_state() == state::disconnected; });
    one.join();
    other.join();
    run_until([&] { return bus().get_state() == state::disconnected; });
    settle();
    told.insert(told.begin(), state::disconnected);
    // Where one thread is held up, the client leaves out a pair of changes between two equal
    // states.
    told.erase(std::unique(told.begin(), told.end()), told.end());
    EXPECT_TRUE(seen_ == told) << seen_.size() << " reported of " << told.size();
    EXPECT_GT(seen_.size(), 2U);
}

TEST_F(Watch, NeedsAHandler) {
    EXPECT_THROW(static_cast<void>(watch(bus(), nullptr)), std::logic_error);
}

} // namespace
} // namespace tarn::test
