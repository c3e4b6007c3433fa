/// A bus that fails the greeting, with everything that can be under way by then.
#include "robustness/misbehaving_bus.h"

namespace tarn::test {
namespace {

using afterwards = scripted_bus::afterwards;
using answer = scripted_bus::answer;

scripted_bus::reaction greet_with(const wire::bytes& raw, afterwards then = afterwards::go_on) {
    return [=](const wire::bytes&, const wire::received&) {
        return answer{raw, then};
    };
}

/// The greeting with one byte replaced.
scripted_bus::reaction greet_with_byte(std::size_t at, std::uint8_t value) {
    return [=](wire::bytes raw, const wire::received&) {
        raw.at(at) = value;
        return answer{raw};
    };
}

wire::bytes greeting(std::uint32_t id) {
    return wire::message(wire::hello, 0, id, {});
}

class greeting_test : public misbehaving_bus_test {
protected:
    /// Everything that can be asked for while the client connects, and one removal of what is not
    /// published yet.
    void start(const scripted_bus::reaction& react) {
        scripted_.on_next(wire::hello, react);
        ended_ = record();
        bus().connect(ended_.connected.handler());
        bus().invoke(scripted_bus::remote_path, "ping", {}, ended_.call.handler(),
                     std::chrono::seconds::zero());
        bus().invoke(scripted_bus::remote_path, "ping", {}, ended_.limited_call.handler(),
                     operations::time_limit);
        bus().add_object(added, {}, ended_.addition.handler());
        bus().del_object(added, true, ended_.removal.handler());
        ASSERT_EQ(bus().get_state(), client::state::connecting);
    }

    void wait_for_the_end() {
        run_until([this] {
            return ended_.connected.reported() && ended_.call.reported() &&
                   ended_.limited_call.reported() && ended_.addition.reported() &&
                   ended_.removal.reported();
        });
    }

    void expect_ended(const code& connected, const code& rest) {
        expect_ended(connected, rest, rest);
    }

    void expect_ended(const code& connected, const code& rest, const code& limited) {
        EXPECT_EQ(ended_.connected.count(), 1U);
        EXPECT_EQ(ended_.connected.code(), connected);
        EXPECT_EQ(ended_.call.count(), 1U);
        EXPECT_EQ(ended_.call.code(), rest);
        EXPECT_EQ(ended_.limited_call.count(), 1U);
        EXPECT_EQ(ended_.limited_call.code(), limited);
        EXPECT_EQ(ended_.addition.count(), 1U);
        EXPECT_EQ(ended_.addition.code(), rest);
        EXPECT_EQ(ended_.removal.count(), 1U);
        EXPECT_EQ(ended_.removal.code(), rest);
    }

    void fail_to_connect(const scripted_bus::reaction& react) {
        ASSERT_NO_FATAL_FAILURE(start(react));
        ASSERT_NO_FATAL_FAILURE(wait_for_the_end());
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        expect_ended(error::generic::unknown_error, error::msg::connection_failed);
    }

    /// Of every operation, what its handler has heard.
    struct record {
        outcome connected;
        call_outcome call;
        call_outcome limited_call;
        outcome addition;
        outcome removal;
    };
    record ended_;
};

class refused_greeting_test : public greeting_test, public ::testing::WithParamInterface<script> {};

TEST_P(refused_greeting_test, FailsTheAttemptAndWhatWaitsForIt) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        fail_to_connect(GetParam().react);
    }
    expect_recovery_on_daemon();
}

INSTANTIATE_TEST_SUITE_P(
    With, refused_greeting_test,
    ::testing::Values(
        script{"NothingAndAnEnd", wire::hello, greet_with({}, afterwards::hang_up), {}},
        script{"AnotherVersion", wire::hello, greet_with_byte(0, 1), {}},
        script{"AnotherType", wire::hello, greet_with_byte(1, wire::status), {}},
        script{"AnUnknownType", wire::hello, greet_with_byte(1, 200), {}},
        script{"NoClientId", wire::hello, greet_with(greeting(0)), {}},
        script{"ALengthTooShort", wire::hello, greet_with_byte(11, 3), {}},
        script{"ALengthOfZero", wire::hello, greet_with_byte(11, 0), {}},
        script{"AnOversizedLength", wire::hello, greet_with_byte(9, 0x11), {}},
        script{"TheLargestLengthAndAnEnd",
               wire::hello,
               [](wire::bytes raw, const wire::received&) {
                   raw.at(9) = 0x10;
                   raw.at(11) = 0;
                   return answer{raw, afterwards::hang_up};
               },
               {}}),
    script_name);

TEST_F(greeting_test, CutAtEveryByteFailsTheAttemptAndWhatWaitsForIt) {
    const std::size_t length = greeting(1).size();
    for (int round = 0; round < rounds(1); ++round) {
        for (std::size_t cut = 0; cut < length && !HasFatalFailure(); ++cut) {
            fail_to_connect([cut](const wire::bytes& raw, const wire::received&) {
                const auto end = raw.begin() + static_cast<std::ptrdiff_t>(cut);
                return answer{wire::bytes(raw.begin(), end), afterwards::hang_up};
            });
        }
    }
    expect_recovery_on_daemon();
}

TEST_F(greeting_test, FollowedByAnEndConnectsAndLosesTheConnection) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        ASSERT_NO_FATAL_FAILURE(start([](const wire::bytes& raw, const wire::received&) {
            return answer{raw, afterwards::hang_up};
        }));
        ASSERT_NO_FATAL_FAILURE(wait_for_the_end());
        ASSERT_NO_FATAL_FAILURE(run_until_state(client::state::disconnected));
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        expect_ended({}, error::msg::connection_failed);
    }
    expect_recovery_on_daemon();
}

TEST_F(greeting_test, FollowedByMessagesInTheSameBreathIsAGreeting) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        ASSERT_NO_FATAL_FAILURE(start([](const wire::bytes& raw, const wire::received&) {
            const auto call = scripted_bus::call_message(1, wire::objid(77) + wire::method("any") +
                                                                wire::data_of({}));
            return answer{raw + wire::message(wire::ping, 3, 4, {}) + call};
        }));
        ASSERT_NO_FATAL_FAILURE(wait_for_the_end());
        // libubus answers a call of an object that it does not have to nobody.
        EXPECT_EQ(scripted_.wait_for_status(0), 4);
        EXPECT_EQ(bus().get_state(), client::state::connected);
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        expect_ended({}, error::msg::success);
    }
    expect_recovery_on_daemon();
}

TEST_F(greeting_test, ThatNeverComesLeavesTimeLimitsOnTime) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        ASSERT_NO_FATAL_FAILURE(start(greet_with({})));
        EXPECT_TRUE(scripted_.wait_for_reaction());
        loop()->advance(operations::time_limit);
        EXPECT_EQ(ended_.limited_call.count(), 1U);
        EXPECT_FALSE(ended_.call.reported());
        scripted_.hang_up();
        ASSERT_NO_FATAL_FAILURE(wait_for_the_end());
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        expect_ended(error::generic::unknown_error, error::msg::connection_failed,
                     error::msg::timeout);
    }
    expect_recovery_on_daemon();
}

TEST_F(greeting_test, ThatNeverComesLeavesCancelFree) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        ASSERT_NO_FATAL_FAILURE(start(greet_with({})));
        EXPECT_TRUE(scripted_.wait_for_reaction());
        bus().cancel();
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        expect_ended(error::generic::aborted, error::generic::aborted);
        scripted_.hang_up();
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        expect_ended(error::generic::aborted, error::generic::aborted);
    }
    expect_recovery_on_daemon();
}

TEST_F(greeting_test, ThatFailsEndsADisconnectionThatWaitsForIt) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        ASSERT_NO_FATAL_FAILURE(start(greet_with({})));
        outcome disconnected;
        bus().disconnect(disconnected.handler());
        EXPECT_EQ(bus().get_state(), client::state::disconnecting);
        EXPECT_TRUE(scripted_.wait_for_reaction());
        scripted_.hang_up();
        ASSERT_NO_FATAL_FAILURE(wait_for_the_end());
        run_until([&] { return disconnected.reported(); });
        EXPECT_EQ(disconnected.count(), 1U);
        EXPECT_FALSE(disconnected.code());
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        expect_ended(error::generic::unknown_error, error::msg::connection_failed);
    }
    expect_recovery_on_daemon();
}

TEST_F(greeting_test, ThatFailsIsTriedAgainAfterTheBackOff) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        std::vector<long long> attempts;
        scripted_.on_next(wire::hello, greet_with({1, 2, 3}, afterwards::hang_up));
        const utils::link reconnecting = bus().auto_connect([&](long long attempt) {
            attempts.push_back(attempt);
            return std::chrono::seconds(attempt);
        });
        run_until([&] { return !attempts.empty(); });
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        scripted_.on_next(wire::hello, greet_with({0}, afterwards::hang_up));
        loop()->advance(std::chrono::seconds(1));
        run_until([&] { return attempts.size() == 2; });
        loop()->advance(std::chrono::seconds(2));
        ASSERT_NO_FATAL_FAILURE(run_until_state(client::state::connected));
        EXPECT_EQ(attempts, (std::vector<long long>{1, 2}));
        // Lost, and back again, counting from 1.
        scripted_.hang_up();
        run_until([&] { return attempts.size() == 3; });
        EXPECT_EQ(attempts.back(), 1);
        loop()->advance(std::chrono::seconds(1));
        ASSERT_NO_FATAL_FAILURE(run_until_state(client::state::connected));
        ASSERT_NO_FATAL_FAILURE(
            use_bus(scripted_bus::remote_path, scripted_bus::remote_method, error::msg::success));
        ASSERT_NO_FATAL_FAILURE(disconnect());
        EXPECT_FALSE(reconnecting.active());
    }
    expect_recovery_on_daemon();
}

} // namespace
} // namespace tarn::test
