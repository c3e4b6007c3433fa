/// A bus that closes the connection: at every kind of message, and inside every answer.
#include "robustness/misbehaving_bus.h"

namespace tarn::test {
namespace {

using afterwards = scripted_bus::afterwards;
using answer = scripted_bus::answer;

scripted_bus::reaction close_after(std::size_t bytes) {
    return [bytes](const wire::bytes& healthy, const wire::received&) {
        const auto end = healthy.begin() + static_cast<std::ptrdiff_t>(bytes);
        return answer{wire::bytes(healthy.begin(), end), afterwards::hang_up};
    };
}

using scripted_bus_test = misbehaving_bus_test;

TEST_F(scripted_bus_test, BehavesUnlessToldOtherwise) {
    const auto healthy = [](const wire::bytes& raw, const wire::received&) {
        return answer{raw};
    };
    for (int round = 0; round < rounds(3) && !HasFatalFailure(); ++round) {
        play(wire::lookup, healthy, outcomes::all_succeed());
        EXPECT_EQ(bus().get_state(), client::state::connected);
        ASSERT_EQ(operations_->call().replies().size(), 1U);
        operations_->expect(outcomes::all_succeed());
        disconnect();
        expect_recovery();
    }
    expect_recovery_on_daemon();
}

class closing_bus_test : public misbehaving_bus_test, public ::testing::WithParamInterface<moment> {
protected:
    /// Closes after `bytes` of the answer, in a round with everything under way.
    void close_in_round(std::size_t bytes, overtaken how) {
        play_to_the_end(GetParam().type, close_after(bytes), broken_at(GetParam().type), how);
    }

    /// The length of the answer that the bus would give.
    std::size_t answer_length() {
        std::size_t length = 0;
        const auto measure = [&](const wire::bytes& raw, const wire::received&) {
            length = raw.size();
            return answer{raw};
        };
        play(GetParam().type, measure, outcomes::all_succeed());
        disconnect();
        return length;
    }
};

TEST_P(closing_bus_test, EndsWhatIsUnderWay) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        close_in_round(0, overtaken::by_nothing);
    }
    expect_recovery_on_daemon();
}

TEST_P(closing_bus_test, EndsWhatIsUnderWayWithAReconnection) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        close_in_round(0, overtaken::by_reconnection);
    }
    expect_recovery_on_daemon();
}

/// The same inside an answer.
class cut_answer_test : public closing_bus_test {
protected:
    void close_at_every_byte(overtaken how) {
        const std::size_t length = answer_length();
        ASSERT_GT(length, 0U);
        for (int round = 0; round < rounds(1); ++round) {
            for (std::size_t cut = 0; cut < length && !HasFatalFailure(); ++cut) {
                SCOPED_TRACE(cut);
                close_in_round(cut, how);
            }
        }
        expect_recovery_on_daemon();
    }
};

TEST_P(cut_answer_test, EndsWhatIsUnderWayAtEveryByte) {
    close_at_every_byte(overtaken::by_nothing);
}

TEST_P(cut_answer_test, EndsWhatIsUnderWayAtEveryByteWithAReconnection) {
    close_at_every_byte(overtaken::by_reconnection);
}

/// A call of the client's object that the bus closes in the middle of.
class cut_call_test : public misbehaving_bus_test {
protected:
    wire::bytes call() const {
        return scripted_bus::call_message(1, wire::objid(scripted_.newest_object()) +
                                                 wire::method("serve") + wire::data_of({}));
    }

    void close_at_every_byte(overtaken how) {
        // Ids are of one length, whatever the object.
        const std::size_t length = call().size();
        ASSERT_GT(length, 0U);
        for (int round = 0; round < rounds(1); ++round) {
            for (std::size_t cut = 0; cut < length && !HasFatalFailure(); ++cut) {
                SCOPED_TRACE(cut);
                const auto react = [&](const wire::bytes&, const wire::received&) {
                    wire::bytes short_of = call();
                    EXPECT_EQ(short_of.size(), length);
                    short_of.resize(cut);
                    return answer{short_of, afterwards::hang_up};
                };
                play_to_the_end(wire::data, react, broken_at(wire::data), how);
            }
        }
        expect_recovery_on_daemon();
    }
};

TEST_F(cut_call_test, EndsWhatIsUnderWayAtEveryByte) {
    close_at_every_byte(overtaken::by_nothing);
}

TEST_F(cut_call_test, EndsWhatIsUnderWayAtEveryByteWithAReconnection) {
    close_at_every_byte(overtaken::by_reconnection);
}

INSTANTIATE_TEST_SUITE_P(On, closing_bus_test,
                         ::testing::Values(moment{"Reply", wire::data},
                                           moment{"Lookup", wire::lookup},
                                           moment{"Invoke", wire::invoke},
                                           moment{"AddObject", wire::add_object},
                                           moment{"RemoveObject", wire::remove_object}),
                         moment_name);

INSTANTIATE_TEST_SUITE_P(On, cut_answer_test,
                         ::testing::Values(moment{"Lookup", wire::lookup},
                                           moment{"Invoke", wire::invoke},
                                           moment{"AddObject", wire::add_object},
                                           moment{"RemoveObject", wire::remove_object}),
                         moment_name);

} // namespace
} // namespace tarn::test
