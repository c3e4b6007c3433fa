/// A bus that stops answering or reading while the loop thread waits for it: time limits fire on
/// time, cancel() returns, and everything ends when the bus does.
#include "robustness/misbehaving_bus.h"

namespace tarn::test {
namespace {

using afterwards = scripted_bus::afterwards;
using answer = scripted_bus::answer;

scripted_bus::reaction fall_silent(afterwards then = afterwards::stop_answering) {
    return [then](const wire::bytes&, const wire::received&) {
        return answer{{}, then};
    };
}

class silent_bus_test : public misbehaving_bus_test, public ::testing::WithParamInterface<moment> {
protected:
    /// What has been reported by the time the bus falls silent at the parameter's moment.
    static outcomes settled_before() {
        outcomes settled = broken_at(GetParam().type);
        for (auto* each :
             {&settled.call, &settled.limited_call, &settled.addition, &settled.removal}) {
            if (*each == code(error::msg::connection_failed)) {
                each->reset();
            }
        }
        return settled;
    }

    static outcomes with_timeout(outcomes expected) {
        if (!settled_before().limited_call) {
            expected.limited_call = error::msg::timeout;
        }
        return expected;
    }
};

TEST_P(silent_bus_test, EndsEverythingWhenItIsClosed) {
    for (int round = 0; round < rounds(5); ++round) {
        const outcomes expected = broken_at(GetParam().type);
        ASSERT_NO_FATAL_FAILURE(
            play(GetParam().type, fall_silent(), settled_before(), overtaken::by_nothing, [this] {
                EXPECT_TRUE(scripted_.wait_for_reaction());
                scripted_.hang_up();
            }));
        run_until([&] { return operations_->all_reported(expected); });
        ASSERT_NO_FATAL_FAILURE(expect_loss());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
    }
    expect_recovery_on_daemon();
}

TEST_P(silent_bus_test, LeavesTimeLimitsOnTime) {
    for (int round = 0; round < rounds(5); ++round) {
        const outcomes expected = with_timeout(broken_at(GetParam().type));
        ASSERT_NO_FATAL_FAILURE(play(GetParam().type, fall_silent(), settled_before()));
        loop()->advance(operations::time_limit);
        // On the spot, although the loop thread waits for the bus.
        EXPECT_TRUE(operations_->all_reported(with_timeout(settled_before())));
        EXPECT_EQ(bus().get_state(), client::state::connected);
        scripted_.hang_up();
        run_until([&] { return operations_->all_reported(expected); });
        ASSERT_NO_FATAL_FAILURE(expect_loss());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
    }
    expect_recovery_on_daemon();
}

TEST_P(silent_bus_test, LeavesCancelFree) {
    for (int round = 0; round < rounds(5); ++round) {
        outcomes expected = settled_before();
        ASSERT_NO_FATAL_FAILURE(play(GetParam().type, fall_silent(), expected));
        bus().cancel();
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        const code aborted = error::generic::aborted;
        for (auto* each : {&expected.call, &expected.limited_call, &expected.addition,
                           &expected.removal, &expected.last_send}) {
            if (!*each) {
                *each = aborted;
            }
        }
        operations_->expect(expected);
        scripted_.hang_up();
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
    }
    expect_recovery_on_daemon();
}

TEST_P(silent_bus_test, EndsAReconnectionThatWaitsForIt) {
    for (int round = 0; round < rounds(5); ++round) {
        const auto close = [this] {
            EXPECT_TRUE(scripted_.wait_for_reaction());
            scripted_.hang_up();
        };
        ASSERT_NO_FATAL_FAILURE(play_to_the_end(GetParam().type, fall_silent(),
                                                broken_at(GetParam().type),
                                                overtaken::by_reconnection, close));
    }
    expect_recovery_on_daemon();
}

INSTANTIATE_TEST_SUITE_P(On, silent_bus_test,
                         ::testing::Values(moment{"Lookup", wire::lookup},
                                           moment{"Invoke", wire::invoke},
                                           moment{"AddObject", wire::add_object},
                                           moment{"RemoveObject", wire::remove_object}),
                         moment_name);

/// A bus that the client can write no more to, while its stream stays open.
class shut_bus_test : public misbehaving_bus_test {
protected:
    /// Answers at `moment`, but what follows cannot be written.
    void shut_at(wire::type moment, const outcomes& expected) {
        const auto react = [](const wire::bytes& healthy, const wire::received&) {
            return answer{healthy, afterwards::shut_reading};
        };
        for (int round = 0; round < rounds(5); ++round) {
            ASSERT_NO_FATAL_FAILURE(play(moment, react, expected));
            ASSERT_NO_FATAL_FAILURE(expect_loss());
            ASSERT_NO_FATAL_FAILURE(expect_recovery());
            operations_->expect(expected);
        }
        expect_recovery_on_daemon();
    }
};

TEST_F(shut_bus_test, EndsTheConnectionWithACall) {
    shut_at(wire::lookup, broken_at(wire::lookup));
}

TEST_F(shut_bus_test, EndsTheConnectionWithARemoval) {
    outcomes expected = broken_at(wire::add_object);
    expected.addition = error::msg::success;
    shut_at(wire::add_object, expected);
}

TEST_F(shut_bus_test, EndsTheConnectionWithASend) {
    outcomes expected = outcomes::all_succeed();
    expected.last_send = error::msg::no_response;
    shut_at(wire::remove_object, expected);
}

TEST_F(shut_bus_test, EndsTheConnectionWithTheLastThingThatIsDone) {
    // A reply that can be written, and nothing but the completion after it.
    for (int round = 0; round < rounds(5); ++round) {
        ASSERT_NO_FATAL_FAILURE(set_up_round());
        scripted_.on_next(wire::data, [](const wire::bytes& healthy, const wire::received&) {
            return answer{healthy, afterwards::shut_reading};
        });
        outcome sent;
        context_->send({{"text", blob::attr("hello")}}, sent.handler());
        EXPECT_TRUE(scripted_.wait_for_reaction());
        context_->respond(error::msg::success);
        ASSERT_NO_FATAL_FAILURE(expect_loss());
        EXPECT_EQ(sent.count(), 1U);
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
    }
    expect_recovery_on_daemon();
}

using mute_service_test = misbehaving_bus_test;

TEST_F(mute_service_test, HoldsUpItsOwnCallOnly) {
    for (int round = 0; round < rounds(5); ++round) {
        outcomes expected = outcomes::all_succeed();
        expected.call.reset();
        ASSERT_NO_FATAL_FAILURE(play(wire::invoke, fall_silent(afterwards::go_on), expected));
        EXPECT_EQ(bus().get_state(), client::state::connected);
        scripted_.hang_up();
        expected.call = error::msg::connection_failed;
        run_until([&] { return operations_->all_reported(expected); });
        ASSERT_NO_FATAL_FAILURE(expect_loss());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
    }
    expect_recovery_on_daemon();
}

TEST_F(mute_service_test, ThatAnswersAfterTheTimeLimitIsNotHeard) {
    for (int round = 0; round < rounds(5); ++round) {
        ASSERT_NO_FATAL_FAILURE(set_up_round());
        call_outcome called;
        std::uint16_t seq = 0;
        scripted_.on_next(wire::invoke, [&](const wire::bytes&, const wire::received& request) {
            seq = request.seq();
            return answer{};
        });
        bus().invoke(scripted_bus::remote_path, "ping", {}, called.handler(),
                     operations::time_limit);
        EXPECT_TRUE(scripted_.wait_for_reaction());
        loop()->advance(operations::time_limit);
        EXPECT_EQ(called.count(), 1U);
        // The late answer comes with the next look-up's.
        scripted_.on_next(wire::lookup, [&](const wire::bytes& healthy, const wire::received&) {
            return answer{
                wire::message(wire::status, seq, scripted_bus::remote_id, wire::status_is(0)) +
                healthy};
        });
        ASSERT_NO_FATAL_FAILURE(
            use_bus(scripted_bus::remote_path, scripted_bus::remote_method, error::msg::success));
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        EXPECT_EQ(called.count(), 1U);
        EXPECT_EQ(called.code(), error::msg::timeout);
    }
    expect_recovery_on_daemon();
}

/// With the socket's buffers full: the loop thread waits in the middle of a message.
class full_bus_test : public misbehaving_bus_test {
protected:
    static constexpr std::size_t count = 8;

    /// Has the loop thread write more than the buffers hold to a bus that does not read, then
    /// starts the operations.
    void fill() {
        ASSERT_NO_FATAL_FAILURE(set_up_round());
        scripted_.on_next(wire::data, fall_silent(afterwards::stop_reading));
        const blob::table large{{"text", blob::attr(std::string(900000, 'x'))}};
        large_ = {};
        for (std::size_t i = 0; i < count; ++i) {
            links_.at(i) = context_->send(large, large_.at(i).handler());
        }
        EXPECT_TRUE(scripted_.wait_for_reaction());
        // Of the second, of which no more than a part can be written.
        EXPECT_TRUE(scripted_.wait_for_unread());
        operations_.emplace(bus(), context_, published, added);
    }

    std::array<outcome, count> large_;
    std::array<utils::link, count> links_;
};

TEST_F(full_bus_test, EndsEverythingWhenItIsClosed) {
    outcomes expected = broken_at(wire::lookup);
    expected.first_send.reset();
    expected.limited_call = error::msg::timeout;
    for (int round = 0; round < rounds(5); ++round) {
        ASSERT_NO_FATAL_FAILURE(fill());
        loop()->advance(operations::time_limit);
        scripted_.hang_up();
        run_until([&] { return operations_->all_reported(expected); });
        ASSERT_NO_FATAL_FAILURE(expect_loss());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
        // Some were written; one was cut off; the rest had nobody left to be written to.
        std::size_t written = 0;
        while (written < count && large_.at(written).reported() && !large_.at(written).code()) {
            ++written;
        }
        ASSERT_LT(written, count);
        EXPECT_EQ(large_.at(written).code(), error::msg::no_response);
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(large_.at(i).count(), i <= written ? 1U : 0U);
            EXPECT_FALSE(links_.at(i).active());
        }
    }
    expect_recovery_on_daemon();
}

TEST_F(full_bus_test, LeavesCancelFree) {
    const code aborted = error::generic::aborted;
    const outcomes expected{aborted, aborted, aborted, aborted, aborted, aborted};
    for (int round = 0; round < rounds(5); ++round) {
        ASSERT_NO_FATAL_FAILURE(fill());
        bus().cancel();
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        scripted_.hang_up();
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(large_.at(i).count(), 1U);
            EXPECT_FALSE(links_.at(i).active());
        }
    }
    expect_recovery_on_daemon();
}

} // namespace
} // namespace tarn::test
