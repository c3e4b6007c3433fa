/// Memory that runs out, at every single allocation in turn: on the application's thread an
/// operation throws and has not begun, on the loop thread it is reported.
#include "client/client_fixture.h"
#include "client/failing_in_turn.h"

#include "support/allocations.h"
#include "tarn/bus.h"
#include "tarn/error.h"

#include <cstdint>
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
        args(); // made in advance, so that nothing of it fails in an operation's place
        publish();
    }

    void publish() {
        connect();
        outcome added;
        bus().add_object("own", methods(), added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code());
    }

    /// Runs what waits for the application's loop with the `nth` allocation failing. Whether it was
    /// reached; what of it passed through the loop is caught.
    static bool drain_with_failure(std::size_t nth) {
        const failing_allocation failure(nth);
        try {
            loop()->drain();
        } catch (const std::bad_alloc&) {
            // What a subscriber's copy, or a handler, may do.
        }
        return failure.happened();
    }

    void TearDown() override {
        kept_.reset();
        client_on_bus_test::TearDown();
    }

    /// Too long for a std::string to hold in itself.
    static constexpr const char* echo_method = "echo_what_was_given_to_me";

    client::method_map methods() {
        return {{echo_method,
                 {[this](const context& ctx) {
                      ctx->send(ctx->args, [this](const std::error_code& code) { sent_ = code; });
                  },
                  {}}},
                {"keep", {[this](const context& ctx) { kept_ = ctx; }, {}}}};
    }

    /// Longer than the buffers that libubox and libubus begin with.
    static const blob::table& args() {
        static const blob::table table{{"text", std::string(3000, 'x')}, {"list", {1, 2, 3}}};
        return table;
    }

    static utils::link echo(call_outcome& done) {
        return bus().invoke("own", echo_method, args(), done.handler(), seconds(0));
    }

    context kept_;
    std::error_code sent_; ///< what became of the last echo's reply
};

TEST_F(Memory, InvokeThrowsAndHasNotBegun) {
    call_outcome done;
    const auto handler = done.handler();
    const auto failed =
        fail_each_here([&] { bus().invoke("own", echo_method, args(), handler, seconds(60)); });
    EXPECT_GT(failed, 10U);
    run_until([&] { return done.reported(); });
    EXPECT_FALSE(done.code());
    loop()->drain();
    EXPECT_EQ(done.count(), 1U) << "only the one that did not throw";
    const stats counted = bus().get_bus().stats();
    EXPECT_EQ(counted.calls_started, 1U);
    EXPECT_EQ(counted.calls_pending, 0U);
}

TEST_F(Memory, AddObjectThrowsAndHasNotBegun) {
    outcome added;
    const auto handler = added.handler();
    const auto other = methods();
    const auto failed = fail_each_here([&] { bus().add_object("other", other, handler); });
    EXPECT_GT(failed, 5U);
    run_until([&] { return added.reported(); });
    EXPECT_FALSE(added.code()) << "the name was not taken by one that threw";
    loop()->drain();
    EXPECT_EQ(added.count(), 1U);
}

TEST_F(Memory, DelObjectThrowsAndHasNotBegun) {
    outcome removed;
    const auto handler = removed.handler();
    const auto failed = fail_each_here([&] { bus().del_object("own", true, handler); });
    EXPECT_GE(failed, 1U) << "the copy of the handler needs none in libc++";
    run_until([&] { return removed.reported(); });
    EXPECT_FALSE(removed.code()) << "it was still there for the one that did not throw";
    loop()->drain();
    EXPECT_EQ(removed.count(), 1U);
}

TEST_F(Memory, WhatIsReportedLaterThrowsAndIsNotReportedThen) {
    outcome removed;
    const auto handler = removed.handler();
    const auto failed = fail_each_here([&] { bus().del_object("nothing", true, handler); });
    EXPECT_GE(failed, 2U);
    run_until([&] { return removed.reported(); });
    EXPECT_EQ(removed.code(), msg::not_found);
    loop()->drain();
    EXPECT_EQ(removed.count(), 1U);
    // And results still find their way.
    call_outcome done;
    echo(done);
    run_until([&] { return done.reported(); });
    EXPECT_FALSE(done.code());
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
        if (!done.code()) {
            EXPECT_EQ(done.replies().size(), sent_ ? 0U : 1U);
            for (const auto& reply : done.replies()) {
                EXPECT_EQ(reply.get<blob::table>().size(), args().size()) << "not cut short";
            }
        }
        loop()->drain();
        EXPECT_EQ(done.count(), 1U);
        if (done.code() == make_error_code(msg::connection_failed)) {
            run_until_state(client::state::disconnected);
            publish();
        }
    });
    EXPECT_GT(failed, 10U);
}

TEST_F(Memory, TheDataOfACallThatIsNotSentIsNotCounted) {
    std::uint64_t sent = 0;
    std::uint64_t bytes = 0;
    const auto failed = fail_each_on_loop_thread([&] {
        const auto before = bus().get_bus().stats().bytes_sent;
        call_outcome done;
        bus().invoke("own", "nothing like it", args(), done.handler(), seconds(0));
        run_until([&] { return done.reported(); });
        bytes = bus().get_bus().stats().bytes_sent - before; // of the last, in which nothing fails
        if (done.code() == msg::no_memory || done.code() == msg::parse_error) {
            EXPECT_EQ(bytes, 0U);
        } else {
            ++sent;
        }
        settle();
        if (bus().get_state() == client::state::disconnected) {
            publish();
        }
    });
    EXPECT_GT(failed, 3U);
    EXPECT_GT(bytes, 3000U);
    EXPECT_LE(bus().get_bus().stats().bytes_sent, sent * bytes);
}

TEST_F(Memory, TheDataOfAReplyThatIsNotSentIsNotCounted) {
    call_outcome done;
    bus().invoke("own", "keep", {}, done.handler(), seconds(0));
    run_until([&] { return kept_ != nullptr; });
    const auto before = bus().get_bus().stats().bytes_sent;
    outcome sent;
    kept_->send({{"text", std::string(1 << 20, 'x')}}, sent.handler()); // longer than the bus takes
    run_until([&] { return sent.reported(); });
    EXPECT_EQ(sent.code(), msg::invalid_argument);
    EXPECT_EQ(bus().get_bus().stats().bytes_sent, before);
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
    EXPECT_GE(failed, 2U);
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

TEST_F(Memory, AnOutcomeIsToldWhetherOrNotTheSubscribersCanBe) {
    const utils::scoped_link subscriber = bus().notify_on_state_change([](client::state) {});
    bus().disconnect({});
    run_until_state(client::state::disconnected);
    for (std::size_t nth = 1;; ++nth) {
        outcome connected;
        bus().connect(connected.handler());
        on_loop_thread([] {}); // connected by now
        const bool happened = drain_with_failure(nth);
        ASSERT_EQ(bus().get_state(), client::state::connected);
        ASSERT_EQ(connected.count(), 1U) << "at allocation " << nth;
        ASSERT_FALSE(connected.code());
        bus().cancel();
        ASSERT_EQ(connected.count(), 1U);
        ASSERT_EQ(bus().get_state(), client::state::disconnected);
        if (!happened) {
            EXPECT_GT(report(nth - 1), 1U);
            return;
        }
    }
}

TEST_F(Memory, ALostConnectionIsNoticedAllTheSame) {
    for (std::size_t nth = 1;; ++nth) {
        daemon_.kill9();
        while (bus().get_state() == client::state::connected) {
            ASSERT_TRUE(loop()->wait_for_task(limit));
            const bool happened = drain_with_failure(nth);
            if (!happened && bus().get_state() != client::state::connected) {
                EXPECT_GE(report(nth - 1), 0U);
                return;
            }
        }
        run_until_state(client::state::disconnected);
        daemon_.start();
        ASSERT_NO_FATAL_FAILURE(publish());
    }
}

TEST_F(Memory, AutomaticReconnectionGoesOnAfterAnAttemptThatCouldNotBeginForWantOfMemory) {
    bus().cancel();
    daemon_.kill9();
    const utils::scoped_link on = bus().auto_connect([](long long) { return seconds(1); });
    std::size_t nth = 1;
    for (bool happened = true; happened; ++nth) {
        run_until([] { return !loop()->armed_timers().empty(); });
        const failing_allocation failure(nth);
        try {
            loop()->advance(seconds(1));
        } catch (const std::bad_alloc&) {
            ADD_FAILURE() << "out of the timer, at allocation " << nth;
        }
        happened = failure.happened();
        ASSERT_LT(nth, 100U);
    }
    EXPECT_GE(report(nth - 2), 1U);
    EXPECT_TRUE(on.active());
    daemon_.start();
    for (int attempts = 0; bus().get_state() != client::state::connected; ++attempts) {
        ASSERT_LT(attempts, 10);
        run_until([] { return bus().is_active() || !loop()->armed_timers().empty(); });
        loop()->advance(seconds(1));
        settle();
    }
}

TEST_F(Memory, ReleasingALinkNeverThrowsAndATimeLimitIsAlwaysTold) {
    for (std::size_t nth = 1; nth < 6; ++nth) {
        call_outcome released;
        call_outcome limited;
        utils::link link = bus().invoke("own", "keep", {}, released.handler(), seconds(0));
        bus().invoke("own", "keep", {}, limited.handler(), seconds(5));
        {
            const failing_allocation failure(nth);
            EXPECT_NO_THROW(link.release());
        }
        {
            const failing_allocation failure(nth);
            EXPECT_NO_THROW(loop()->advance(seconds(5)));
        }
        EXPECT_FALSE(link.active());
        EXPECT_EQ(limited.count(), 1U);
        EXPECT_EQ(limited.code(), msg::timeout);
        settle();
        EXPECT_EQ(released.count(), 0U);
    }
}

TEST_F(Memory, EveryCallThatIsServedIsAnswered) {
    for (std::size_t nth = 1;; ++nth) {
        settle();
        call_outcome done;
        bus().invoke("own", "keep", {}, done.handler(), seconds(0));
        ASSERT_TRUE(loop()->wait_for_task(limit)); // arrived
        const bool happened = drain_with_failure(nth);
        const bool kept = kept_ != nullptr;
        {
            const failing_allocation failure(1);
            kept_.reset(); // answers
        }
        run_until([&] { return done.reported(); });
        EXPECT_EQ(done.code(),
                  kept ? make_error_code(msg::success) : make_error_code(msg::unknown_error));
        if (!happened && kept) {
            EXPECT_GE(report(nth - 1), 1U);
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
        ASSERT_NO_FATAL_FAILURE(publish());
        if (!happened) {
            failed = nth - 1;
            break;
        }
    }
    EXPECT_GE(report(failed), 1U);
}

} // namespace
} // namespace tarn::test
