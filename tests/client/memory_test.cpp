/// Memory that runs out, at every single allocation in turn: on the application's thread an
/// operation throws and has not begun, on the loop thread it is reported.
#include "client/client_fixture.h"

#include "support/allocations.h"
#include "tarn/error.h"
#include "tarn/uloop.h"

#include <future>
#include <iostream>
#include <new>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;
using context = std::shared_ptr<client::exchange_ctx>;

class Memory : public client_on_bus_test {
protected:
    void SetUp() override {
        connect();
        outcome added;
        bus().add_object("own", methods(), added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code());
    }

    void TearDown() override {
        kept_.reset();
        client_on_bus_test::TearDown();
    }

    client::method_map methods() {
        return {{"echo", {[](const context& ctx) { ctx->send(ctx->args, {}); }, {}}},
                {"keep", {[this](const context& ctx) { kept_ = ctx; }, {}}}};
    }

    /// Longer than the buffers that libubox and libubus begin with.
    static const blob::table& args() {
        static const blob::table table{{"text", std::string(3000, 'x')}, {"list", {1, 2, 3}}};
        return table;
    }

    static utils::link echo(call_outcome& done) {
        return bus().invoke("own", "echo", args(), done.handler(), seconds(0));
    }

    static std::size_t report(std::size_t failed) {
        std::cout << failed << " allocations failed in turn\n";
        return failed;
    }

    /// Runs `work` on the loop thread and waits for it.
    template <class Work>
    static void on_loop_thread(Work work) {
        std::promise<void> done;
        uloop::get_instance().post([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    /// Makes the loop thread's first, second, third ... allocation from now on fail in turn, each
    /// time during one `operation`, until one comes to its end before the allocation is reached.
    /// Returns how many have failed.
    template <class Operation>
    static std::size_t fail_each_on_loop_thread(const Operation& operation) {
        for (std::size_t nth = 1;; ++nth) {
            std::unique_ptr<failing_allocation> failure;
            on_loop_thread([&] { failure = std::make_unique<failing_allocation>(nth); });
            operation();
            bool happened = false;
            on_loop_thread([&] {
                happened = failure->happened();
                failure.reset();
            });
            if (!happened || ::testing::Test::HasFailure()) {
                return report(nth - 1);
            }
        }
    }

    /// The same on this thread, for an operation that throws then and has no effect.
    template <class Operation>
    static std::size_t fail_each_here(const Operation& operation) {
        for (std::size_t nth = 1;; ++nth) {
            bool thrown = false;
            bool happened = false;
            {
                const failing_allocation failure(nth);
                try {
                    operation();
                } catch (const std::bad_alloc&) {
                    thrown = true;
                }
                happened = failure.happened();
            }
            EXPECT_EQ(thrown, happened) << "at allocation " << nth;
            if (!happened || ::testing::Test::HasFailure()) {
                return report(nth - 1);
            }
        }
    }

    context kept_;
};

TEST_F(Memory, InvokeThrowsAndHasNotBegun) {
    call_outcome done;
    const auto handler = done.handler();
    const auto failed =
        fail_each_here([&] { bus().invoke("own", "echo", args(), handler, seconds(60)); });
    EXPECT_GT(failed, 10U);
    run_until([&] { return done.reported(); });
    EXPECT_FALSE(done.code());
    loop()->drain();
    EXPECT_EQ(done.count(), 1U) << "only the one that did not throw";
}

TEST_F(Memory, AddObjectThrowsAndHasNotBegun) {
    outcome added;
    const auto handler = added.handler();
    const auto other = methods();
    const auto failed = fail_each_here([&] { bus().add_object("other", other, handler); });
    EXPECT_GT(failed, 10U);
    run_until([&] { return added.reported(); });
    EXPECT_FALSE(added.code()) << "the name was not taken by one that threw";
    loop()->drain();
    EXPECT_EQ(added.count(), 1U);
}

TEST_F(Memory, SendThrowsAndHasNotBegun) {
    call_outcome done;
    bus().invoke("own", "keep", {}, done.handler(), seconds(0));
    run_until([&] { return kept_ != nullptr; });
    outcome sent;
    const auto handler = sent.handler();
    const auto failed = fail_each_here([&] { kept_->send(args(), handler); });
    EXPECT_GT(failed, 5U);
    run_until([&] { return sent.reported(); });
    EXPECT_FALSE(sent.code());
    kept_->respond(msg::success);
    run_until([&] { return done.reported(); });
    EXPECT_EQ(done.replies().size(), 1U);
    EXPECT_EQ(sent.count(), 1U);
}

TEST_F(Memory, ACallIsReportedWhicheverAllocationOfTheLoopThreadFails) {
    const auto failed = fail_each_on_loop_thread([&] {
        call_outcome done;
        echo(done);
        run_until([&] { return done.reported(); });
        // unknown_error comes from the serving side, parse_error from a message that libubox cannot
        // make longer; connection_failed when libubus has no memory to read.
        EXPECT_TRUE(!done.code() || done.code() == make_error_code(msg::no_memory) ||
                    done.code() == make_error_code(msg::parse_error) ||
                    done.code() == make_error_code(msg::connection_failed) ||
                    done.code() == make_error_code(msg::unknown_error))
            << done.code().message();
        loop()->drain();
        EXPECT_EQ(done.count(), 1U);
    });
    EXPECT_GT(failed, 10U);
}

TEST_F(Memory, AnAdditionAndARemovalAreReportedWhicheverAllocationOfTheLoopThreadFails) {
    const auto failed = fail_each_on_loop_thread([&] {
        outcome added;
        bus().add_object("other", methods(), added.handler());
        run_until([&] { return added.reported(); });
        EXPECT_TRUE(!added.code() || added.code() == make_error_code(msg::no_memory))
            << added.code().message();
        outcome removed;
        bus().del_object("other", true, removed.handler());
        run_until([&] { return removed.reported(); });
        EXPECT_TRUE(!removed.code() || added.code() ||
                    removed.code() == make_error_code(msg::no_memory))
            << removed.code().message();
        if (removed.code() == make_error_code(msg::no_memory)) {
            // The bus still knows it; the connection's end clears that.
            bus().disconnect({});
            run_until_state(client::state::disconnected);
            connect();
        }
    });
    EXPECT_GT(failed, 5U);
}

TEST_F(Memory, ASendIsReportedWhicheverAllocationOfTheLoopThreadFails) {
    call_outcome done;
    bus().invoke("own", "keep", {}, done.handler(), seconds(0));
    run_until([&] { return kept_ != nullptr; });
    const auto failed = fail_each_on_loop_thread([&] {
        outcome sent;
        kept_->send(args(), sent.handler());
        run_until([&] { return sent.reported(); });
        // invalid_argument is that of a message that libubox cannot make longer.
        EXPECT_TRUE(!sent.code() || sent.code() == make_error_code(msg::no_memory) ||
                    sent.code() == make_error_code(msg::invalid_argument))
            << sent.code().message();
    });
    EXPECT_GT(failed, 5U);
}

TEST_F(Memory, ConnectingAndDisconnectingAreReportedWhicheverAllocationOfTheLoopThreadFails) {
    const auto failed = fail_each_on_loop_thread([&] {
        outcome disconnected;
        bus().disconnect(disconnected.handler());
        run_until([&] { return disconnected.reported(); });
        EXPECT_FALSE(disconnected.code());
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        // Memory for the connection itself is libubus's, which then makes none.
        EXPECT_TRUE(!connected.code() ||
                    connected.code() == make_error_code(error::generic::unknown_error))
            << connected.code().message();
        EXPECT_EQ(bus().get_state(),
                  connected.code() ? client::state::disconnected : client::state::connected);
    });
    EXPECT_GT(failed, 2U);
}

TEST_F(Memory, TellingTheOutcomeOfAConnectionNeedsNone) {
    bus().disconnect({});
    run_until_state(client::state::disconnected);
    outcome connected;
    bus().connect(connected.handler());
    on_loop_thread([] {}); // connected by now
    const auto before = allocations();
    loop()->drain();
    EXPECT_EQ(allocations(), before);
    EXPECT_EQ(connected.count(), 1U);
    EXPECT_FALSE(connected.code());
}

TEST_F(Memory, AnOutcomeHeldUpWhileSubscribersCannotBeToldIsToldByCancel) {
    const utils::scoped_link subscriber = bus().notify_on_state_change([](client::state) {});
    bus().disconnect({});
    run_until_state(client::state::disconnected);
    for (std::size_t nth = 1;; ++nth) {
        outcome connected;
        bus().connect(connected.handler());
        on_loop_thread([] {}); // connected by now
        bool happened = false;
        {
            const failing_allocation failure(nth);
            try {
                loop()->drain();
            } catch (const std::bad_alloc&) {
                happened = true;
            }
        }
        EXPECT_EQ(bus().get_state(), client::state::connected);
        EXPECT_EQ(connected.count(), happened ? 0U : 1U);
        bus().cancel();
        ASSERT_EQ(connected.count(), 1U) << "at allocation " << nth;
        ASSERT_EQ(connected.code() == make_error_code(error::generic::aborted), happened);
        ASSERT_EQ(bus().get_state(), client::state::disconnected);
        if (!happened) {
            EXPECT_GT(report(nth - 1), 1U);
            return;
        }
    }
}

TEST_F(Memory, ACancelThatRunsOutOfMemoryMayBeRepeated) {
    std::size_t failed = 0;
    for (std::size_t nth = 1;; ++nth) {
        call_outcome called;
        outcome added;
        bus().invoke("own", "keep", {}, called.handler(), seconds(60));
        bus().add_object("other", methods(), added.handler());
        bool happened = false;
        {
            const failing_allocation failure(nth);
            try {
                bus().cancel();
            } catch (const std::bad_alloc&) {
                happened = true;
            }
        }
        bus().cancel();
        ASSERT_EQ(called.count(), 1U) << "at allocation " << nth;
        ASSERT_EQ(added.count(), 1U) << "at allocation " << nth;
        ASSERT_EQ(bus().get_state(), client::state::disconnected);
        kept_.reset();
        connect();
        outcome again;
        bus().add_object("own", methods(), again.handler());
        run_until([&] { return again.reported(); });
        ASSERT_FALSE(again.code());
        if (!happened) {
            failed = nth - 1;
            break;
        }
    }
    EXPECT_GT(report(failed), 2U);
}

} // namespace
} // namespace tarn::test
