/// Calls of objects that another process publishes through plain libubus.
#include "client/client_fixture.h"

#include "support/held_loop_thread.h"
#include "support/scripted_bus.h"
#include "tarn/error.h"

#include <gmock/gmock.h>

#include <atomic>
#include <limits>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

class Invoke : public client_on_bus_test {
protected:
    void SetUp() override {
        start_service();
        connect();
    }

    static utils::link call(const std::string& method, const blob::table& args,
                            const client::result_handler& handler, seconds timeout = seconds(0)) {
        return bus().invoke("demo", method, args, handler, timeout);
    }

    static void finish(const call_outcome& outcome) {
        run_until([&] { return outcome.reported(); });
    }
};

TEST_F(Invoke, DeliversTheDecodedReplyOnTheApplicationsLoop) {
    call_outcome echo;
    const auto link = call("echo", {{"msg", "hi"}, {"n", 42}}, echo.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(echo.reported()) << "never before invoke() returns";
    finish(echo);
    EXPECT_FALSE(echo.code());
    ASSERT_EQ(echo.replies().size(), 1U);
    EXPECT_EQ(echo.reply().find("msg")->second.get<std::string>(), "hi");
    EXPECT_EQ(echo.reply().find("n")->second.get<int>(), 42);
    EXPECT_FALSE(link.active());
    EXPECT_EQ(echo.count(), 1U);
}

TEST_F(Invoke, CarriesEveryKindOfValueThereAndBack) {
    const blob::table args{
        {"bool", true},
        {"bytes", blob::bytes{0, 255, 16}},
        {"double", -0.5},
        {"int16", static_cast<short>(-3)},
        {"int32", std::numeric_limits<int>::min()},
        {"int64", std::numeric_limits<long long>::min()},
        {"int8", static_cast<signed char>(-1)},
        {"list", {1, "two", 3.0}},
        {"string", "text"},
        {"table", {{"inner", {{"deep", 7}}}}},
    };
    call_outcome echo;
    call("echo", args, echo.handler());
    finish(echo);
    ASSERT_EQ(echo.replies().size(), 1U);
    const auto& reply = echo.reply();
    const auto at = [&reply](const char* name) -> const blob::attr& {
        return reply.find(name)->second;
    };
    ASSERT_EQ(reply.size(), args.size());
    EXPECT_EQ(at("bool").get<unsigned char>(), 1) << "a flag cannot be told from a small number";
    EXPECT_EQ(at("bytes").get<blob::bytes>(), (blob::bytes{0, 255, 16}));
    EXPECT_EQ(at("double").get<double>(), -0.5);
    EXPECT_EQ(at("int16").get<short>(), -3);
    EXPECT_EQ(at("int32").get<int>(), std::numeric_limits<int>::min());
    EXPECT_EQ(at("int64").get<long long>(), std::numeric_limits<long long>::min());
    EXPECT_EQ(at("int8").get<signed char>(), -1);
    EXPECT_EQ(at("list").get<blob::list>().size(), 3U);
    EXPECT_EQ(at("string").get<std::string>(), "text");
    const auto& inner = at("table").get<blob::table>().find("inner")->second.get<blob::table>();
    EXPECT_EQ(inner.find("deep")->second.get<int>(), 7);
}

TEST_F(Invoke, SeveralRepliesArriveAsSeveralElementsInOrder) {
    call_outcome twice;
    call("twice", {}, twice.handler());
    finish(twice);
    EXPECT_FALSE(twice.code());
    ASSERT_EQ(twice.replies().size(), 2U);
    EXPECT_EQ(twice.replies().front().get<blob::table>().find("i")->second.get<int>(), 1);
    EXPECT_EQ(twice.replies().back().get<blob::table>().find("i")->second.get<int>(), 2);
}

TEST_F(Invoke, ReportsTheStatusThatTheCalleeGave) {
    call_outcome deny;
    call("deny", {}, deny.handler());
    finish(deny);
    EXPECT_EQ(deny.code(), make_error_code(msg::permission_denied));
    EXPECT_TRUE(deny.replies().empty());
}

TEST_F(Invoke, AnUnknownMethodIsReportedAsSuch) {
    call_outcome unknown;
    call("nosuch", {}, unknown.handler());
    finish(unknown);
    EXPECT_EQ(unknown.code(), make_error_code(msg::method_not_found));
}

TEST_F(Invoke, AnUnknownObjectIsNotFound) {
    call_outcome unknown;
    const auto link = bus().invoke("nobody", "echo", {}, unknown.handler(), seconds(0));
    finish(unknown);
    EXPECT_EQ(unknown.code(), make_error_code(msg::not_found));
    EXPECT_FALSE(link.active());
}

TEST_F(Invoke, ArgumentsThatCannotBeEncodedAreAParseError) {
    call_outcome bad;
    call("echo", {{"empty", blob::attr()}}, bad.handler());
    finish(bad);
    EXPECT_EQ(bad.code(), make_error_code(msg::parse_error));
    EXPECT_TRUE(bad.replies().empty());
}

TEST_F(Invoke, ArgumentsBeyondTheBusLimitAreAnInvalidArgumentAndTheConnectionStays) {
    const blob::table too_large[]{
        {{"big", std::string(2U << 20U, 'x')}},
        // More than a message buffer can hold.
        {{"big", std::string(17U << 20U, 'x')}},
        {{"list", {{"table", {{"big", std::string(17U << 20U, 'x')}}}}}},
        // Buffers whose length runs over to 0 at their last byte, and with libubus's own headers.
        {{"u", blob::bytes(16777201)}},
        {{"s", std::string(16777200, 'x')}},
        {{"u", blob::bytes(0xffffff - 12 - 24)}},
    };
    for (const auto& args : too_large) {
        call_outcome big;
        call("echo", args, big.handler());
        finish(big);
        EXPECT_EQ(big.code(), make_error_code(msg::invalid_argument));
        EXPECT_TRUE(big.replies().empty());
    }
    blob::table large_and_many{{"a", blob::bytes(16777201 - 1024)}};
    for (int i = 0; i < 200; ++i) {
        large_and_many.emplace("i", i);
    }
    call_outcome many;
    call("echo", large_and_many, many.handler());
    finish(many);
    EXPECT_EQ(many.code(), make_error_code(msg::invalid_argument));
    call_outcome after;
    call("twice", {}, after.handler());
    finish(after);
    EXPECT_FALSE(after.code());
}

TEST_F(Invoke, TheLargestCallArrivesAndOneThatIsLongerIsAnInvalidArgument) {
    // The message's head, the object's id, the method's name, the data's head, the field's header
    // with its name, and the text's NUL. The rest up to the limit of the bus is for the names of
    // the user and the group.
    constexpr std::size_t around = 4 + 8 + (4 + 8) + 4 + 8 + 1;
    constexpr std::size_t largest = 1048056 - around;
    call_outcome fits;
    call("echo", {{"x", std::string(largest, 'x')}}, fits.handler());
    finish(fits);
    EXPECT_FALSE(fits.code()) << fits.code().message();
    ASSERT_EQ(fits.replies().size(), 1U);
    EXPECT_EQ(fits.reply().find("x")->second.get<std::string>().size(), largest);
    call_outcome too_large;
    call("echo", {{"x", std::string(largest + 1, 'x')}}, too_large.handler());
    finish(too_large);
    EXPECT_EQ(too_large.code(), make_error_code(msg::invalid_argument));
}

TEST_F(Invoke, ANulInAPathOrAMethodIsAnInvalidArgument) {
    using namespace std::string_literals;
    const std::pair<std::string, std::string> cut[]{{"demo\0"s, "echo"},  {"demo\0x"s, "echo"},
                                                    {"\0"s, "echo"},      {"demo", "echo\0"s},
                                                    {"demo", "echo\0x"s}, {"demo", "\0"s}};
    for (const auto& [path, method] : cut) {
        call_outcome refused;
        const auto link = bus().invoke(path, method, {}, refused.handler(), seconds(0));
        EXPECT_TRUE(link.active());
        EXPECT_FALSE(refused.reported()) << "never before invoke() returns";
        finish(refused);
        EXPECT_EQ(refused.code(), make_error_code(msg::invalid_argument));
        EXPECT_FALSE(link.active());
    }
    EXPECT_FALSE(bus().invoke("demo\0"s, "echo", {}, {}, seconds(0)).active());
}

TEST_F(Invoke, APathThatEndsInAStarCallsTheLastObjectThatMatches) {
    outcome added;
    for (const std::string name : {"own.a", "own.b", "owner"}) {
        const auto tell = [name](const std::shared_ptr<client::exchange_ctx>& ctx) {
            ctx->send({{"name", name}}, {});
        };
        bus().add_object(name, {{"tell", {tell, {}}}}, added.handler());
    }
    run_until([&] { return added.count() == 3; });
    const auto called = [](const std::string& path) {
        call_outcome done;
        bus().invoke(path, "tell", {}, done.handler(), seconds(0));
        finish(done);
        return done.replies().empty() ? done.code().message()
                                      : done.reply().find("name")->second.get<std::string>();
    };
    EXPECT_EQ(called("own.a*"), "own.a");
    EXPECT_EQ(called("own.*"), "own.b");
    EXPECT_EQ(called("own*"), "owner");
    EXPECT_EQ(called("nobody*"), make_error_code(msg::not_found).message());
}

TEST_F(Invoke, APathOrMethodBeyondTheBusLimitIsAnInvalidArgumentAndTheConnectionStays) {
    const std::string huge(2U << 20U, 'p');
    call_outcome path;
    bus().invoke(huge, "echo", {}, path.handler(), seconds(0));
    finish(path);
    EXPECT_EQ(path.code(), make_error_code(msg::invalid_argument));
    call_outcome method;
    call(huge, {}, method.handler());
    finish(method);
    EXPECT_EQ(method.code(), make_error_code(msg::invalid_argument));
    call_outcome after;
    call("twice", {}, after.handler());
    finish(after);
    EXPECT_FALSE(after.code());
}

TEST_F(Invoke, ATimeoutOfZeroMakesNoTimer) {
    const auto before = loop()->timers_made();
    call_outcome echo;
    call("echo", {}, echo.handler());
    EXPECT_EQ(loop()->timers_made(), before);
    finish(echo);
}

TEST_F(Invoke, TheTimeLimitEndsTheCallAndDiscardsTheRepliesSoFar) {
    std::shared_ptr<client::exchange_ctx> open;
    const auto answer_in_part = [&open](const auto& ctx) {
        ctx->send({{"part", 1}}, {});
        open = ctx;
    };
    outcome added;
    bus().add_object("own", {{"parts", {answer_in_part, {}}}}, added.handler());
    run_until([&] { return added.reported(); });
    call_outcome late;
    const auto link = bus().invoke("own", "parts", {}, late.handler(), seconds(5));
    run_until([&] { return open != nullptr; });
    // Sent after the part and answered by the same daemon: when it is over, the part is here.
    call_outcome after;
    bus().invoke("own", "nosuch", {}, after.handler(), seconds(0));
    finish(after);
    loop()->advance(seconds(4));
    loop()->drain();
    EXPECT_FALSE(late.reported());
    EXPECT_TRUE(link.active());
    loop()->advance(seconds(1));
    finish(late);
    EXPECT_EQ(late.code(), make_error_code(msg::timeout));
    EXPECT_TRUE(late.replies().empty());
    EXPECT_FALSE(link.active());
    open.reset();
    settle();
    EXPECT_EQ(late.count(), 1U);
}

TEST_F(Invoke, TheTimerGoesWithTheCall) {
    const auto before = loop()->timers_alive();
    call_outcome echo;
    call("echo", {}, echo.handler(), seconds(5));
    EXPECT_EQ(loop()->timers_alive(), before + 1);
    finish(echo);
    EXPECT_EQ(loop()->timers_alive(), before);
    EXPECT_TRUE(loop()->armed_timers().empty());
}

TEST_F(Invoke, ACompletionAfterTheTimeLimitIsIgnored) {
    call_outcome late;
    call("late", {{"ms", 50}}, late.handler(), seconds(1));
    loop()->advance(seconds(1));
    loop()->drain();
    ASSERT_TRUE(late.reported());
    // The next answer of the same service comes after the late one.
    call_outcome after;
    call("late", {{"ms", 200}}, after.handler());
    finish(after);
    EXPECT_EQ(late.count(), 1U);
    EXPECT_EQ(late.code(), make_error_code(msg::timeout));
}

TEST_F(Invoke, ANegativeTimeoutExpiresAtOnce) {
    call_outcome late;
    call("late", {}, late.handler(), seconds(-5));
    loop()->advance(seconds(0));
    finish(late);
    EXPECT_EQ(late.code(), make_error_code(msg::timeout));
}

TEST_F(Invoke, ReleasingTheLinkEndsTheCallUnheardAndFreesTheHandler) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    int calls = 0;
    auto link = call("late", {}, [&calls, held](const auto&, const auto&) { ++calls; });
    held.reset();
    EXPECT_TRUE(link.active());
    link.release();
    EXPECT_FALSE(link.active());
    EXPECT_TRUE(watched.expired());
    call_outcome after;
    call("late", {{"ms", 200}}, after.handler());
    finish(after);
    EXPECT_EQ(calls, 0);
}

TEST_F(Invoke, ReleasingAfterTheHandlerHasRunDoesNothing) {
    call_outcome echo;
    auto link = call("echo", {}, echo.handler());
    finish(echo);
    EXPECT_NO_THROW(link.release());
    EXPECT_NO_THROW(link.release());
}

TEST_F(Invoke, ReleasingTheLinkFromInsideTheHandlerDoesNothing) {
    utils::link link;
    int calls = 0;
    link = call("echo", {}, [&](const auto&, const auto&) {
        ++calls;
        EXPECT_FALSE(link.active());
        EXPECT_NO_THROW(link.release());
    });
    run_until([&] { return calls == 1; });
}

TEST_F(Invoke, AScopedLinkEndsTheCallWhenItGoes) {
    call_outcome late;
    {
        const utils::scoped_link link(call("late", {}, late.handler()));
        EXPECT_TRUE(link.active());
    }
    call_outcome after;
    call("late", {{"ms", 200}}, after.handler());
    finish(after);
    EXPECT_FALSE(late.reported());
}

TEST_F(Invoke, ACallWithAnEmptyHandlerRunsAndCanBeCancelled) {
    auto link = call("late", {{"ms", 60000}}, {});
    EXPECT_TRUE(link.active());
    link.release();
    EXPECT_FALSE(link.active());
    // This one runs to its end: the service is gone afterwards.
    call("quit", {}, {});
    EXPECT_EQ(service_->wait(), 0);
}

TEST_F(Invoke, ManyCallsAtOnceAllGetTheirOwnReply) {
    constexpr int calls = 500;
    std::vector<int> answers;
    for (int n = 0; n < calls; ++n) {
        call("echo", {{"n", n}}, [&answers](const auto& replies, const std::error_code& code) {
            ASSERT_FALSE(code);
            answers.push_back(
                replies.front().template get<blob::table>().find("n")->second.template get<int>());
        });
    }
    run_until([&] { return answers.size() == calls; });
    for (int n = 0; n < calls; ++n) {
        EXPECT_EQ(answers[static_cast<std::size_t>(n)], n);
    }
}

TEST_F(Invoke, APendingCallGetsConnectionFailedWhenTheBusIsLost) {
    call_outcome late;
    const auto link = call("late", {{"ms", 60000}}, late.handler());
    call_outcome before;
    call("echo", {}, before.handler());
    finish(before); // so the first one has reached the service
    daemon_.kill9();
    finish(late);
    EXPECT_EQ(late.code(), make_error_code(msg::connection_failed));
    EXPECT_TRUE(late.replies().empty());
    EXPECT_FALSE(link.active());
    EXPECT_EQ(late.count(), 1U);
}

TEST_F(Invoke, APendingCallGetsConnectionFailedWhenTheApplicationDisconnects) {
    call_outcome late;
    call("late", {{"ms", 60000}}, late.handler());
    bus().disconnect({});
    finish(late);
    EXPECT_EQ(late.code(), make_error_code(msg::connection_failed));
}

TEST_F(Invoke, ACallOnALostBusGetsConnectionFailedAtWhateverMomentItIsLost) {
    for (int round = 0; round < 20; ++round) {
        std::vector<std::error_code> codes;
        constexpr std::size_t calls = 40;
        for (std::size_t n = 0; n < calls; ++n) {
            call("echo", {},
                 [&codes](const auto&, const std::error_code& code) { codes.push_back(code); });
            if (n == static_cast<std::size_t>(round) * 2) {
                daemon_.kill9();
            }
        }
        run_until([&] { return codes.size() == calls; });
        for (const auto& code : codes) {
            EXPECT_TRUE(!code || code == make_error_code(msg::connection_failed)) << code.message();
        }
        run_until_state(client::state::disconnected);
        daemon_.restart();
        start_service();
        connect();
    }
}

TEST_F(Invoke, CancelEndsPendingCallsWithAbortedBeforeItReturns) {
    call_outcome late;
    const auto link = call("late", {{"ms", 60000}}, late.handler(), seconds(5));
    bus().cancel();
    EXPECT_EQ(late.code(), make_error_code(error::generic::aborted));
    EXPECT_TRUE(late.replies().empty());
    EXPECT_FALSE(link.active());
    EXPECT_TRUE(loop()->armed_timers().empty());
    loop()->drain();
    EXPECT_EQ(late.count(), 1U);
}

TEST_F(Invoke, DuringCancelACallGetsAbortedThroughTheTaskQueue) {
    call_outcome during;
    utils::link link;
    call("late", {}, [&](const auto&, const auto&) {
        link = call("echo", {}, during.handler());
        EXPECT_TRUE(link.active());
        EXPECT_FALSE(call("echo", {}, {}).active());
    });
    bus().cancel();
    finish(during);
    EXPECT_EQ(during.code(), make_error_code(error::generic::aborted));
    EXPECT_TRUE(during.replies().empty());
}

TEST_F(Invoke, DuringCancelTheLinkOfACallSuppressesItsReport) {
    call_outcome during;
    call("late", {}, [&](const auto&, const auto&) {
        auto link = call("echo", {}, during.handler());
        link.release();
        EXPECT_FALSE(link.active());
    });
    bus().cancel();
    loop()->drain();
    EXPECT_FALSE(during.reported());
}

TEST_F(Invoke, DuringCancelAHandlerMaySilenceAnotherPendingCall) {
    std::vector<utils::link> links(10);
    int heard = 0;
    for (auto& link : links) {
        link = call("late", {{"ms", 60000}}, [&](const auto&, const auto&) {
            ++heard;
            for (auto& other : links) {
                other.release();
            }
        });
    }
    bus().cancel();
    EXPECT_EQ(heard, 1);
}

TEST_F(Invoke, AHandlerMayInvokeAgain) {
    call_outcome second;
    call("echo", {}, [&](const auto&, const auto&) { call("twice", {}, second.handler()); });
    finish(second);
    EXPECT_EQ(second.replies().size(), 2U);
}

class InvokeOnAScriptedBus : public client_test {
protected:
    void SetUp() override {
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        ASSERT_FALSE(connected.code());
    }
    static void call_remote(call_outcome& done) {
        bus().invoke(scripted_bus::remote_path, scripted_bus::remote_method, {}, done.handler(),
                     seconds(0));
        run_until([&] { return done.reported(); });
    }
    scripted_bus scripted_;
};

TEST_F(InvokeOnAScriptedBus, AnEmptyTableStandsForAReplyThatDoesNotDecode) {
    scripted_.on_next(wire::invoke, [](const wire::bytes& healthy, const wire::received& request) {
        // A field whose type does not exist.
        const wire::bytes odd = wire::message(wire::data, request.seq(), request.peer(),
                                              wire::objid(scripted_bus::remote_id) +
                                                  wire::data_of(wire::field(9, "x", {0, 0, 0, 0})));
        return scripted_bus::answer{odd + healthy};
    });
    call_outcome done;
    call_remote(done);
    EXPECT_EQ(done.code(), make_error_code(msg::parse_error));
    ASSERT_EQ(done.replies().size(), 2U);
    EXPECT_TRUE(done.replies().front().get<blob::table>().empty());
    EXPECT_EQ(done.replies().back().get<blob::table>().size(), 1U);
}

TEST_F(InvokeOnAScriptedBus, ALookUpThatNamesNoObjectIsNotFoundAndNothingIsCalled) {
    scripted_.on_next(wire::lookup, [](const wire::bytes&, const wire::received& request) {
        // A call of object 0 would be left without an answer.
        return scripted_bus::answer{scripted_bus::status_message(request, 0),
                                    scripted_bus::afterwards::stop_answering};
    });
    call_outcome done;
    call_remote(done);
    EXPECT_EQ(done.code(), make_error_code(msg::not_found));
}

TEST_F(InvokeOnAScriptedBus, ARefusalCountsMoreThanAReplyThatDoesNotDecode) {
    scripted_.on_next(wire::invoke, [](const wire::bytes&, const wire::received& request) {
        const wire::bytes odd = wire::message(wire::data, request.seq(), request.peer(),
                                              wire::objid(scripted_bus::remote_id) +
                                                  wire::data_of(wire::field(9, "x", {0, 0, 0, 0})));
        constexpr std::uint32_t permission_denied = 6;
        return scripted_bus::answer{odd + scripted_bus::status_message(request, permission_denied)};
    });
    call_outcome done;
    call_remote(done);
    EXPECT_EQ(done.code(), make_error_code(msg::permission_denied));
    EXPECT_EQ(done.replies().size(), 1U);
}

TEST_F(InvokeOnAScriptedBus, CallsThatAreRequestedTogetherShareALookUpUnlessItFails) {
    const auto look_ups_of_two_calls = [this](const char* path) {
        const std::size_t before = scripted_.received(wire::lookup);
        call_outcome first;
        call_outcome second;
        {
            const held_loop_thread held;
            bus().invoke(path, scripted_bus::remote_method, {}, first.handler(), seconds(0));
            bus().invoke(path, scripted_bus::remote_method, {}, second.handler(), seconds(0));
        }
        run_until([&] { return first.reported() && second.reported(); });
        EXPECT_EQ(first.code(), second.code());
        return scripted_.received(wire::lookup) - before;
    };
    EXPECT_EQ(look_ups_of_two_calls(scripted_bus::remote_path), 1U);
    EXPECT_EQ(look_ups_of_two_calls(scripted_bus::remote_path), 1U) << "not kept for later";
    EXPECT_EQ(look_ups_of_two_calls("nobody"), 2U);
}

class InvokeWithoutAConnection : public client_test {
    bus_daemon none_{bus_daemon::launch::later};
};

TEST_F(InvokeWithoutAConnection, ReportsConnectionFailed) {
    call_outcome none;
    const auto link = bus().invoke("demo", "echo", {}, none.handler(), seconds(0));
    EXPECT_TRUE(link.active());
    run_until([&] { return none.reported(); });
    EXPECT_EQ(none.code(), make_error_code(msg::connection_failed));
    EXPECT_FALSE(link.active());
}

TEST_F(InvokeWithoutAConnection, ManyThreadsMayInvokeAndReleaseAtOnce) {
    bus();
    constexpr int threads = 4;
    constexpr int rounds = 500;
    // A call whose link is released at the moment of its report may be heard or not, but none is
    // over before its handler is gone.
    std::atomic<int> kept_heard{0};
    std::atomic<int> released_heard{0};
    std::atomic<int> gone{0};
    std::vector<std::thread> callers;
    for (int n = 0; n < threads; ++n) {
        callers.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                const bool kept = round % 2 != 0;
                auto& heard = kept ? kept_heard : released_heard;
                const std::shared_ptr<void> until_gone(nullptr, [&gone](void*) { ++gone; });
                auto link = bus().invoke(
                    "demo", "echo", {}, [&heard, until_gone](const auto&, const auto&) { ++heard; },
                    seconds(round % 3));
                if (!kept) {
                    link.release();
                }
            }
        });
    }
    run_until([&] { return gone == threads * rounds; });
    for (auto& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(kept_heard, threads * rounds / 2);
    EXPECT_LE(released_heard, threads * rounds / 2);
}

} // namespace
} // namespace tarn::test
