/// A bus whose messages are well formed and wrong: what concerns nobody changes nothing, and a
/// wrong answer ends the one operation that it is for.
#include "robustness/misbehaving_bus.h"

#include <functional>
#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using answer = scripted_bus::answer;

constexpr std::uint16_t first_stray_call = 0x7000;

/// A reaction that goes on being healthy, and adds to it.
scripted_bus::reaction with(const std::function<wire::bytes(const wire::received&)>& ahead,
                            const std::function<wire::bytes(const wire::received&)>& behind) {
    return [=](const wire::bytes& healthy, const wire::received& request) {
        return answer{(ahead ? ahead(request) : wire::bytes()) + healthy +
                      (behind ? behind(request) : wire::bytes())};
    };
}

scripted_bus::reaction instead(const std::function<wire::bytes(const wire::received&)>& make) {
    return [=](const wire::bytes&, const wire::received& request) {
        return answer{make(request)};
    };
}

scripted_bus::reaction status(std::uint32_t number) {
    return instead(
        [=](const auto& request) { return scripted_bus::status_message(request, number); });
}

wire::bytes data(const wire::received& request, const wire::bytes& attributes) {
    return wire::message(wire::data, request.seq(), request.peer(), attributes);
}

wire::bytes answer_of(const wire::received& request, const wire::bytes& attributes) {
    return data(request, attributes) + scripted_bus::status_message(request, 0);
}

wire::bytes unknown_types(const wire::received& request) {
    wire::bytes all;
    for (const int type : {0, 3, 4, 6, 7, 8, 9, 10, 11, 12, 99, 255}) {
        all = all + wire::message(static_cast<std::uint8_t>(type), request.seq(), request.peer(),
                                  wire::status_is(9) + wire::objid(scripted_bus::remote_id));
    }
    return all;
}

wire::bytes unasked_answers(const wire::received& request) {
    const auto other = static_cast<std::uint16_t>(request.seq() + 1000);
    const wire::bytes content = wire::objid(5) + wire::data_of({});
    return wire::message(wire::data, other, request.peer(), content) +
           wire::message(wire::status, other, request.peer(), wire::status_is(0)) +
           wire::message(wire::data, request.seq(), request.peer() + 1, content) +
           wire::message(wire::status, request.seq(), request.peer() + 1, wire::status_is(6)) +
           wire::message(wire::status, 0, 0, wire::status_is(6)) +
           wire::message(wire::status, 0, 0, {});
}

wire::bytes repeated_status(const wire::received& request) {
    return scripted_bus::status_message(request, 0) + scripted_bus::status_message(request, 6);
}

/// The status of the request before this one, once more.
wire::bytes earlier_status(const wire::received& request) {
    const auto before = static_cast<std::uint16_t>(request.seq() - 1);
    return wire::message(wire::status, before, 0, wire::status_is(6)) +
           wire::message(wire::status, before, scripted_bus::remote_id, wire::status_is(6));
}

wire::bytes data_without_data(const wire::received& request) {
    return data(request, {}) + data(request, wire::status_is(3));
}

/// As long as a message may be, of a type that means nothing to the client.
wire::bytes largest_message(const wire::received& request) {
    constexpr std::size_t largest = 1048576;
    return wire::message(99, request.seq(), request.peer(),
                         wire::nested(7, wire::bytes(largest - 8)));
}

class harmless_test : public misbehaving_bus_test, public ::testing::WithParamInterface<script> {
protected:
    void misbehave_at(wire::type moment, overtaken how) {
        const outcomes expected = outcomes::all_succeed();
        ASSERT_NO_FATAL_FAILURE(play(moment, GetParam().react, expected, how));
        EXPECT_EQ(bus().get_state(), client::state::connected);
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_EQ(operations_->call().replies().size(), 1U);
        EXPECT_EQ(operations_->call().reply().count("text"), 1U);
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
    }

    void misbehave_everywhere(overtaken how) {
        for (int round = 0; round < rounds(2); ++round) {
            for (const auto moment :
                 {wire::data, wire::lookup, wire::invoke, wire::add_object, wire::remove_object}) {
                SCOPED_TRACE(moment);
                ASSERT_NO_FATAL_FAILURE(misbehave_at(moment, how));
            }
        }
        expect_recovery_on_daemon();
    }
};

TEST_P(harmless_test, ChangesNothing) {
    misbehave_everywhere(overtaken::by_nothing);
}

TEST_P(harmless_test, ChangesNothingInAReconnection) {
    misbehave_everywhere(overtaken::by_reconnection);
}

INSTANTIATE_TEST_SUITE_P(
    Sending, harmless_test,
    ::testing::Values(script{"UnknownTypesAhead", {}, with(unknown_types, {}), {}},
                      script{"UnknownTypesBehind", {}, with({}, unknown_types), {}},
                      script{"UnaskedAnswersAhead", {}, with(unasked_answers, {}), {}},
                      script{"UnaskedAnswersBehind", {}, with({}, unasked_answers), {}},
                      script{"TheStatusAgain", {}, with({}, repeated_status), {}},
                      script{"AnEarlierStatusAgain", {}, with(earlier_status, {}), {}},
                      script{"DataWithoutDataAhead", {}, with(data_without_data, {}), {}},
                      script{"DataWithoutDataBehind", {}, with({}, data_without_data), {}},
                      script{"TheLargestMessage", {}, with(largest_message, {}), {}}),
    script_name);

using wrong_answer_test = misbehaving_bus_test;

TEST_F(wrong_answer_test, ByteByByteIsNoneAtAll) {
    scripted_.send_in_pieces(true);
    for (int round = 0; round < rounds(3); ++round) {
        ASSERT_NO_FATAL_FAILURE(
            play(wire::lookup, with(unknown_types, unasked_answers), outcomes::all_succeed()));
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(outcomes::all_succeed());
    }
    expect_recovery_on_daemon();
}

/// One code for the operation that is answered wrongly; the rest succeeds.
class one_wrong_answer_test : public misbehaving_bus_test,
                              public ::testing::WithParamInterface<script> {
protected:
    void answer_wrongly(overtaken how) {
        const script& wrong = GetParam();
        for (int round = 0; round < rounds(5); ++round) {
            ASSERT_NO_FATAL_FAILURE(play(wrong.moment, wrong.react, wrong.expected, how));
            EXPECT_EQ(bus().get_state(), client::state::connected);
            ASSERT_NO_FATAL_FAILURE(use_bus(scripted_bus::remote_path, scripted_bus::remote_method,
                                            error::msg::success));
            ASSERT_NO_FATAL_FAILURE(disconnect());
            ASSERT_NO_FATAL_FAILURE(expect_recovery());
            operations_->expect(wrong.expected);
        }
        expect_recovery_on_daemon();
    }
};

outcomes call_ends_with(error::msg wrong) {
    outcomes expected = outcomes::all_succeed();
    expected.call = wrong;
    return expected;
}

/// One look-up has answered for both.
outcomes both_calls_end_with(error::msg wrong) {
    outcomes expected = call_ends_with(wrong);
    expected.limited_call = wrong;
    return expected;
}

outcomes addition_ends_with(error::msg wrong) {
    outcomes expected = outcomes::all_succeed();
    expected.addition = wrong;
    return expected;
}

outcomes removal_ends_with(error::msg wrong) {
    outcomes expected = outcomes::all_succeed();
    expected.removal = wrong;
    return expected;
}

TEST_P(one_wrong_answer_test, EndsTheOneOperation) {
    answer_wrongly(overtaken::by_nothing);
}

TEST_P(one_wrong_answer_test, EndsTheOneOperationInAReconnection) {
    answer_wrongly(overtaken::by_reconnection);
}

constexpr auto undecodable = [](const wire::received& request) {
    constexpr std::uint8_t text = 3;
    return answer_of(request,
                     wire::objid(scripted_bus::remote_id) +
                         wire::data_of(wire::field(text, "unended", {'a', 'b', 'c', 'd'})));
};

INSTANTIATE_TEST_SUITE_P(
    To, one_wrong_answer_test,
    ::testing::Values(
        script{"LookupThatKnowsNothing", wire::lookup, status(4),
               call_ends_with(error::msg::not_found)},
        script{"LookupThatRefuses", wire::lookup, status(6),
               call_ends_with(error::msg::permission_denied)},
        script{"LookupWithAStatusOutOfRange", wire::lookup, status(0xffffffff),
               call_ends_with(error::msg::unknown_error)},
        script{"LookupWithAStatusWithoutNumber", wire::lookup, instead([](const auto& request) {
                   return wire::message(wire::status, request.seq(), request.peer(), {});
               }),
               call_ends_with(error::msg::invalid_argument)},
        script{"LookupWithoutData", wire::lookup, status(0), call_ends_with(error::msg::not_found)},
        script{"LookupWithoutAnId", wire::lookup,
               instead([](const auto& request) { return answer_of(request, wire::objpath("x")); }),
               call_ends_with(error::msg::not_found)},
        script{"LookupWithTheIdZero", wire::lookup,
               instead([](const auto& request) { return answer_of(request, wire::objid(0)); }),
               call_ends_with(error::msg::not_found)},
        script{"LookupWithAnotherObjectsId", wire::lookup,
               instead([](const auto& request) { return answer_of(request, wire::objid(5)); }),
               both_calls_end_with(error::msg::not_found)},
        script{"CallThatIsRefused", wire::invoke, status(3),
               call_ends_with(error::msg::method_not_found)},
        script{"CallWithTheStatusOfATimeout", wire::invoke, status(7),
               call_ends_with(error::msg::timeout)},
        script{"CallWithAStatusOutOfRange", wire::invoke, status(14),
               call_ends_with(error::msg::unknown_error)},
        script{"CallWithAStatusWithoutNumber", wire::invoke, instead([](const auto& request) {
                   return wire::message(wire::status, request.seq(), request.peer(), {});
               }),
               call_ends_with(error::msg::invalid_argument)},
        script{"CallWithoutData", wire::invoke, status(0), call_ends_with(error::msg::success)},
        script{"CallWithUndecodableData", wire::invoke, instead(undecodable),
               call_ends_with(error::msg::parse_error)},
        script{"AdditionThatIsRefused", wire::add_object, status(2),
               addition_ends_with(error::msg::invalid_argument)},
        script{"AdditionWithoutData", wire::add_object, status(0),
               addition_ends_with(error::msg::no_response)},
        script{"AdditionWithTheIdZero", wire::add_object,
               instead([](const auto& request) { return answer_of(request, wire::objid(0)); }),
               addition_ends_with(error::msg::no_response)},
        script{"RemovalThatIsRefused", wire::remove_object, status(6),
               removal_ends_with(error::msg::permission_denied)},
        script{"RemovalOfTheUnknown", wire::remove_object, status(4),
               removal_ends_with(error::msg::not_found)},
        script{"RemovalWithoutData", wire::remove_object, status(0),
               removal_ends_with(error::msg::no_response)}),
    script_name);

TEST_F(wrong_answer_test, OfUndecodableDataIsAnEmptyReply) {
    for (int round = 0; round < rounds(5); ++round) {
        ASSERT_NO_FATAL_FAILURE(
            play(wire::invoke, instead(undecodable), call_ends_with(error::msg::parse_error)));
        ASSERT_EQ(operations_->call().replies().size(), 1U);
        EXPECT_TRUE(operations_->call().reply().empty());
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(call_ends_with(error::msg::parse_error));
    }
    expect_recovery_on_daemon();
}

TEST_F(wrong_answer_test, ThatGivesTwoObjectsOneIdLeavesTheSecondUnserved) {
    for (int round = 0; round < rounds(5); ++round) {
        std::uint32_t id = 0;
        ASSERT_NO_FATAL_FAILURE(set_up_round());
        // The id of the published object shows in its removal.
        scripted_.on_next(wire::remove_object,
                          [&](const wire::bytes& healthy, const auto& request) {
                              id = request.number(3);
                              return answer{healthy};
                          });
        outcome removed;
        bus().del_object(published, true, removed.handler());
        run_until([&] { return removed.reported(); });
        ASSERT_NO_FATAL_FAILURE(disconnect());
        // Ids count on, by one for the greeting and one for the object.
        const auto same_id = [id](const wire::bytes&, const wire::received& request) {
            return answer{answer_of(request, wire::objid(id + 2))};
        };
        ASSERT_NO_FATAL_FAILURE(play(wire::add_object, same_id, outcomes::all_succeed()));
        EXPECT_EQ(bus().get_state(), client::state::connected);
        // The first is gone by now, and nobody was told that the second never came to be.
        scripted_.call(id + 2, "serve");
        EXPECT_EQ(scripted_.wait_for_status(0), 4);
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(outcomes::all_succeed());
    }
    expect_recovery_on_daemon();
}

/// Calls that a service cannot serve, sent while a look-up is under way.
TEST_F(wrong_answer_test, CallsOfWhatNobodyHasAreAnswered) {
    constexpr std::uint16_t no_object = first_stray_call;
    constexpr std::uint16_t no_method = first_stray_call + 1;
    constexpr std::uint16_t unnamed_method = first_stray_call + 2;
    constexpr std::uint16_t no_data = first_stray_call + 3;
    constexpr std::uint16_t no_id = first_stray_call + 4;
    constexpr std::uint16_t bad_data = first_stray_call + 5;
    for (const auto moment : {wire::lookup, wire::invoke, wire::add_object, wire::remove_object}) {
        for (int round = 0; round < rounds(2); ++round) {
            const auto calls = [this](const wire::received&) {
                const wire::bytes own = wire::objid(scripted_.newest_object());
                const wire::bytes serve = wire::method("serve");
                const wire::bytes empty = wire::data_of({});
                return scripted_bus::call_message(no_object, wire::objid(9) + serve + empty) +
                       scripted_bus::call_message(no_method,
                                                  own + wire::method("nothing") + empty) +
                       scripted_bus::call_message(unnamed_method, own + empty) +
                       scripted_bus::call_message(no_data, own + serve) +
                       scripted_bus::call_message(no_id, serve + empty) +
                       scripted_bus::call_message(
                           bad_data, own + serve + wire::data_of({0, 1, 2, 3, 4, 5, 6, 7}));
            };
            ASSERT_NO_FATAL_FAILURE(play(moment, with(calls, {}), outcomes::all_succeed()));
            // libubus answers a call of an object that it does not have, or without a method, to
            // nobody; a call without an object not at all.
            const auto answers = scripted_.wait_for_completions(
                5, [](std::uint16_t seq) { return seq == 0 || seq >= first_stray_call; });
            using completion = scripted_bus::completion;
            const completion nobody{0, 4};
            // Or the object is being withdrawn, or gone.
            const auto gone_or = [nobody](std::uint16_t seq, int status) {
                return ::testing::AnyOf(completion{seq, status}, completion{seq, 4}, nobody);
            };
            // The object that is added has no methods at all.
            const bool serves = moment == wire::lookup || moment == wire::invoke;
            EXPECT_THAT(answers,
                        ::testing::ElementsAre(nobody, gone_or(no_method, 3), gone_or(0, 2),
                                               gone_or(no_data, serves ? 2 : 3),
                                               gone_or(bad_data, serves ? 9 : 3)));
            ASSERT_NO_FATAL_FAILURE(disconnect());
            ASSERT_NO_FATAL_FAILURE(expect_recovery());
            operations_->expect(outcomes::all_succeed());
        }
    }
    expect_recovery_on_daemon();
}

TEST_F(wrong_answer_test, ToARemovalLeavesTheObjectUnserved) {
    const auto expected = removal_ends_with(error::msg::permission_denied);
    for (int round = 0; round < rounds(5); ++round) {
        std::uint32_t id = 0;
        const auto refuse = [&id](const wire::bytes&, const wire::received& request) {
            id = request.number(3);
            return answer{scripted_bus::status_message(request, 6)};
        };
        ASSERT_NO_FATAL_FAILURE(play(wire::remove_object, refuse, expected));
        // The bus still knows it, and goes on sending calls.
        const std::uint16_t seq = scripted_.call(id, "serve");
        EXPECT_EQ(scripted_.wait_for_status(seq), 4);
        ASSERT_NO_FATAL_FAILURE(disconnect());
        ASSERT_NO_FATAL_FAILURE(expect_recovery());
        operations_->expect(expected);
    }
    expect_recovery_on_daemon();
}

} // namespace
} // namespace tarn::test
