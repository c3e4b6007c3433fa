/// Handlers that throw into the application's loop: what they take with them, and what they do not.
#include "client/client_fixture.h"

#include "tarn/error.h"

#include <stdexcept>

namespace tarn::test {
namespace {

using error::msg;
using state = client::state;
using std::chrono::seconds;
using context = std::shared_ptr<client::exchange_ctx>;

/// A method handler that throws, with something queued behind it in the same drain.
class Throwing : public client_on_bus_test {
protected:
    void SetUp() override {
        connect();
        outcome added;
        bus().add_object(
            "own",
            {{"throw", {[](const context&) { throw std::runtime_error("a method's"); }, {}}},
             {"echo", {[](const context& ctx) { ctx->send(ctx->args, {}); }, {}}}},
            added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code());
        settle();
    }

    /// The call of the method that throws has arrived, and waits for the application's loop.
    void call_the_thrower() {
        bus().invoke("own", "throw", {}, thrown_at_.handler(), seconds(0));
        await_arrival();
    }

    /// Until the loop thread has queued what the requests so far lead to.
    static void await_arrival() {
        for (int turn = 0; turn < 200; ++turn) {
            on_loop_thread([] {});
            std::this_thread::yield();
        }
        ASSERT_TRUE(loop()->wait_for_task(limit));
    }

    static void expect_throw() { EXPECT_THROW(loop()->drain(), std::runtime_error); }

    call_outcome thrown_at_;
};

TEST_F(Throwing, ACallThatIsDroppedIsAnsweredUnknownError) {
    call_outcome behind;
    bus().invoke("own", "throw", {}, thrown_at_.handler(), seconds(0));
    bus().invoke("own", "echo", {}, behind.handler(), seconds(0));
    await_arrival();
    expect_throw();
    run_until([&] { return behind.reported() && thrown_at_.reported(); });
    EXPECT_EQ(behind.code(), msg::unknown_error);
    EXPECT_FALSE(thrown_at_.code()) << "it had its context, and let it go";
    call_outcome later;
    bus().invoke("own", "echo", {}, later.handler(), seconds(0));
    run_until([&] { return later.reported(); });
    EXPECT_FALSE(later.code());
}

TEST_F(Throwing, TheEndOfADisconnectionIsNotDropped) {
    call_the_thrower();
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    await_arrival();
    expect_throw();
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(disconnected.code());
    EXPECT_EQ(bus().get_state(), state::disconnected);
    connect();
}

TEST_F(Throwing, TheLossOfTheConnectionIsNotDropped) {
    call_the_thrower();
    daemon_.kill9();
    await_arrival();
    expect_throw();
    run_until_state(state::disconnected);
    daemon_.start();
    connect();
}

TEST_F(Throwing, AnAdditionThatIsDroppedLeavesItsNameInOrder) {
    call_the_thrower();
    outcome added;
    outcome refused;
    const utils::link adding = bus().add_object("next", {}, added.handler());
    const utils::link failing =
        bus().add_object("wrong", {{"x", {{}, {{"n", typeid(int)}}}}}, refused.handler());
    await_arrival();
    expect_throw();
    settle();
    EXPECT_FALSE(added.reported());
    EXPECT_FALSE(adding.active());
    EXPECT_FALSE(failing.active());
    outcome taken;
    outcome free;
    bus().add_object("next", {}, taken.handler());
    bus().add_object("wrong", {}, free.handler());
    run_until([&] { return taken.reported() && free.reported(); });
    EXPECT_EQ(taken.code(), msg::invalid_argument) << "it is published";
    EXPECT_FALSE(free.code()) << "it was refused";
}

TEST_F(Throwing, AResultThatIsDroppedEndsItsCall) {
    outcome report;
    bus().connect([](const std::error_code&) { throw std::runtime_error("a report's"); });
    const utils::link dropped = bus().connect(report.handler());
    call_outcome called;
    const utils::link link = bus().invoke("nobody", "echo", {}, called.handler(), seconds(0));
    await_arrival();
    expect_throw();
    settle();
    EXPECT_FALSE(report.reported());
    EXPECT_FALSE(dropped.active());
    EXPECT_FALSE(called.reported());
    EXPECT_FALSE(link.active());
}

/// A method handler that cannot be copied once `throws` is set.
struct uncopyable {
    std::shared_ptr<bool> throws;

    explicit uncopyable(std::shared_ptr<bool> when)
        : throws(std::move(when)) {}
    uncopyable(const uncopyable& other)
        : throws(other.throws) {
        if (*throws) {
            throw std::runtime_error("a copy's");
        }
    }
    uncopyable& operator=(const uncopyable&) = delete;
    ~uncopyable() = default;

    void operator()(const context& /*call*/) const {}
};

TEST_F(Throwing, ACallWhoseHandlerCannotBeCopiedIsAnsweredUnknownError) {
    const auto throws = std::make_shared<bool>(false);
    outcome added;
    bus().add_object("other", {{"serve", {uncopyable(throws), {}}}}, added.handler());
    run_until([&] { return added.reported(); });
    *throws = true;
    call_outcome called;
    bus().invoke("other", "serve", {}, called.handler(), seconds(0));
    await_arrival();
    expect_throw();
    run_until([&] { return called.reported(); });
    EXPECT_EQ(called.code(), msg::unknown_error);
    *throws = false;
}

} // namespace
} // namespace tarn::test
