/// A bus whose stream breaks off being messages: the client ends the connection, whatever is under
/// way, although the bus leaves it open. So the bundled libubus has it; others look at less of what
/// the daemon sends.
#include "robustness/misbehaving_bus.h"

#include <initializer_list>
#include <string>
#include <tuple>

namespace tarn::test {
namespace {

using answer = scripted_bus::answer;

/// Bytes that no message starts with, or that are none inside.
struct broken_bytes {
    const char* name;
    wire::bytes raw;
};

std::ostream& operator<<(std::ostream& out, const broken_bytes& shown) {
    return out << shown.name;
}

wire::bytes with_byte(std::size_t at, std::uint8_t value, wire::bytes raw) {
    raw.at(at) = value;
    return raw;
}

wire::bytes status_zero() {
    return wire::message(wire::status, 1, 0, wire::status_is(0));
}

const broken_bytes broken[]{
    {"AnotherVersion", with_byte(0, 1, status_zero())},
    {"ALengthOfZero", with_byte(11, 0, status_zero())},
    {"ALengthTooShort", with_byte(11, 3, status_zero())},
    {"AnOversizedLength", with_byte(9, 0x11, status_zero())},
    {"ABlobWithAnId", with_byte(8, 3, status_zero())},
    {"AnExtendedBlob", with_byte(8, 0x80, status_zero())},
    {"AnAttributeBeyondTheMessage", with_byte(15, 0x40, status_zero())},
    {"AnAttributeTooShort", with_byte(15, 2, status_zero())},
    {"AStatusOfTwoBytes", wire::message(wire::status, 1, 0, wire::nested(1, {0, 0}))},
    {"AMethodWithoutAnEnd",
     scripted_bus::call_message(1, wire::objid(1) + wire::nested(4, {'a', 'b', 'c', 'd'}))},
    {"AnEmptyMethod", scripted_bus::call_message(1, wire::objid(1) + wire::nested(4, {}))},
    {"AnAttributeCutShort", wire::message(wire::data, 1, 0, {0, 0})},
};

/// Where the broken bytes stand.
enum class place { instead, ahead, behind };

class broken_stream_test : public misbehaving_bus_test,
                           public ::testing::WithParamInterface<std::tuple<broken_bytes, place>> {
protected:
    void break_at(wire::type moment, overtaken how) {
        const auto& [bytes, where] = GetParam();
        // What the healthy answer has settled by then. A call needs more than the look-up's.
        outcomes expected = broken_at(moment);
        if (where == place::behind) {
            const code done = error::msg::success;
            if (moment == wire::invoke) {
                expected.call = done;
            } else if (moment == wire::add_object) {
                expected.addition = done;
            } else if (moment == wire::remove_object) {
                // Nothing reads the socket between the end of the removal and the next message.
                expected.removal = expected.last_send = done;
            }
        }
        const auto react = [raw = bytes.raw, at = where](const wire::bytes& healthy,
                                                         const wire::received&) {
            return answer{at == place::instead ? raw
                          : at == place::ahead ? raw + healthy
                                               : healthy + raw};
        };
        play_to_the_end(moment, react, expected, how);
    }

    void break_everywhere(overtaken how) {
        for (int round = 0; round < rounds(1); ++round) {
            for (const auto moment :
                 {wire::data, wire::lookup, wire::invoke, wire::add_object, wire::remove_object}) {
                SCOPED_TRACE(moment);
                ASSERT_NO_FATAL_FAILURE(break_at(moment, how));
            }
        }
        expect_recovery_on_daemon();
    }
};

TEST_P(broken_stream_test, EndsTheConnectionAndWhatIsUnderWay) {
    break_everywhere(overtaken::by_nothing);
}

TEST_P(broken_stream_test, EndsTheConnectionAndWhatIsUnderWayWithAReconnection) {
    break_everywhere(overtaken::by_reconnection);
}

using broken_greeting_test = misbehaving_bus_test;

TEST_F(broken_greeting_test, OfABlobWithAnIdFailsTheAttempt) {
    for (int round = 0; round < rounds(5) && !HasFatalFailure(); ++round) {
        scripted_.on_next(wire::hello, [](const wire::bytes& healthy, const wire::received&) {
            return answer{with_byte(8, 1, healthy)};
        });
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        EXPECT_EQ(connected.code(), error::generic::unknown_error);
        EXPECT_EQ(bus().get_state(), client::state::disconnected);
        expect_recovery();
        EXPECT_EQ(connected.count(), 1U);
    }
    expect_recovery_on_daemon();
}

std::string broken_name(const ::testing::TestParamInfo<std::tuple<broken_bytes, place>>& info) {
    const auto& [bytes, where] = info.param;
    static const char* const places[]{"Instead", "Ahead", "Behind"};
    return std::string(bytes.name) + places[static_cast<int>(where)];
}

INSTANTIATE_TEST_SUITE_P(With, broken_stream_test,
                         ::testing::Combine(::testing::ValuesIn(broken),
                                            ::testing::Values(place::instead, place::ahead,
                                                              place::behind)),
                         broken_name);

} // namespace
} // namespace tarn::test
