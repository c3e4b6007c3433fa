/// What comes before what: the outcomes of one event in the order in which they are told.
#include "client/client_fixture.h"

#include "support/held_loop_thread.h"
#include "tarn/error.h"

#include <gmock/gmock.h>

#include <string>

namespace tarn::test {
namespace {

using state = client::state;
using std::chrono::seconds;
using ::testing::ElementsAre;

/// The text of no error differs between C libraries.
std::string text_of(const std::error_code& code) {
    return code ? code.message() : "Success";
}

/// Notes who is called, one after another.
class notes {
public:
    client::completion_handler completion(const std::string& name) {
        return [this, name](const std::error_code& code) {
            seen_.push_back(name + ": " + text_of(code));
        };
    }
    client::result_handler result(const std::string& name) {
        return [this, name](const std::list<blob::attr>&, const std::error_code& code) {
            seen_.push_back(name + ": " + text_of(code));
        };
    }
    client::state_handler states() {
        return [this](state s) {
            if (s == state::disconnected) {
                seen_.emplace_back("disconnected");
            }
        };
    }
    client::backoff_function backoff() {
        return [this](long long) {
            seen_.emplace_back("back-off");
            return seconds(1);
        };
    }
    const std::vector<std::string>& seen() const { return seen_; }

private:
    std::vector<std::string> seen_;
};

class Order : public client_on_bus_test {
protected:
    void TearDown() override {
        states_.release();
        client_on_bus_test::TearDown();
    }
    notes notes_;
    utils::scoped_link states_;
};
class OrderWithoutABus : public client_test {
protected:
    bus_daemon none_{bus_daemon::launch::later};
    notes notes_;
};

TEST_F(Order, CancelEndsCallsThenOperationsThenWhatIsQueuedThenDisconnectsThenConnects) {
    connect();
    settle();
    const held_loop_thread held;
    states_ = bus().notify_on_state_change(notes_.states());
    bus().add_object("own", {}, notes_.completion("addition"));
    bus().invoke("nobody", "nothing", {}, notes_.result("call"), seconds(0));
    bus().connect(notes_.completion("queued"));
    bus().disconnect(notes_.completion("disconnect"));
    bus().connect(notes_.completion("connect"));
    bus().cancel();
    EXPECT_THAT(notes_.seen(),
                ElementsAre("call: Aborted", "addition: Aborted", "queued: Success", "disconnected",
                            "disconnect: Success", "connect: Aborted"));
}

TEST_F(Order, CancelEndsAdditionsThenRemovalsThenReplies) {
    connect();
    std::shared_ptr<client::exchange_ctx> open;
    bus().add_object("own", {{"hold", {[&](const auto& ctx) { open = ctx; }, {}}}}, {});
    bus().invoke("own", "hold", {}, {}, seconds(0));
    run_until([&] { return open != nullptr; });
    const held_loop_thread held;
    open->send({}, notes_.completion("reply"));
    bus().del_object("own", true, notes_.completion("removal"));
    bus().add_object("other", {}, notes_.completion("addition"));
    bus().cancel();
    EXPECT_THAT(notes_.seen(),
                ElementsAre("addition: Aborted", "removal: Aborted", "reply: Aborted"));
}

TEST_F(Order, CallsThatADisconnectionEndsHearOfItAfterTheStateAndTheDisconnectHandlers) {
    connect();
    std::vector<std::shared_ptr<client::exchange_ctx>> open;
    bus().add_object("own", {{"hold", {[&](const auto& ctx) { open.push_back(ctx); }, {}}}}, {});
    bus().invoke("own", "hold", {}, notes_.result("call"), seconds(0));
    run_until([&] { return !open.empty(); });
    states_ = bus().notify_on_state_change(notes_.states());
    bus().disconnect(notes_.completion("disconnect"));
    run_until([&] { return notes_.seen().size() >= 3; });
    EXPECT_THAT(notes_.seen(),
                ElementsAre("disconnected", "disconnect: Success", "call: Connection failed"));
}

TEST_F(OrderWithoutABus, TheBackOffIsAskedBeforeTheSubscribersHearOfTheFailure) {
    utils::scoped_link states = bus().notify_on_state_change(notes_.states());
    bus().auto_connect(notes_.backoff());
    run_until([&] { return notes_.seen().size() >= 2; });
    EXPECT_THAT(notes_.seen(), ElementsAre("back-off", "disconnected"));
    states.release();
}

TEST_F(Order, WhatComesAfterACancelWaitsForTheNextRequest) {
    connect();
    settle();
    std::size_t posts = 0;
    {
        const held_loop_thread held;
        bus().cancel();
        loop()->drain();
        posts = loop()->post_count();
    }
    // The end of the connection is a result; nobody has asked for one since.
    on_loop_thread([] {});
    on_loop_thread([] {});
    EXPECT_EQ(loop()->post_count(), posts);
    connect();
    EXPECT_GT(loop()->post_count(), posts);
}

} // namespace
} // namespace tarn::test
