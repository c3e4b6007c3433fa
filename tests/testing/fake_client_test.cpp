/// The fake client: what a script, a command and a published object make of the code under test.
#include "tarn/testing/fake_client.h"

#include "tarn/error.h"
#include "tarn/testing/manual_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <utility>

namespace {

using tarn::client;
using tarn::error::generic;
using tarn::error::msg;
using tarn::testing::fake_client;
using tarn::testing::manual_loop;
using tarn::testing::outcome;
using state = tarn::client::state;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FakeClient : public ::testing::Test {
protected:
    /// What a handler was told, each time.
    struct record {
        std::vector<std::error_code> codes;
        std::vector<tarn::blob::table> replies;

        client::completion_handler completion() {
            return [this](const std::error_code& code) {
                codes.push_back(code);
            };
        }
        client::result_handler result() {
            return [this](const std::list<tarn::blob::attr>& got, const std::error_code& code) {
                codes.push_back(code);
                for (const auto& each : got) {
                    replies.push_back(each.get<tarn::blob::table>());
                }
            };
        }
    };

    void connect() {
        bus.connect({});
        loop->drain();
        ASSERT_TRUE(bus.is_active());
    }

    /// A call of a published object whose handler keeps the context in `kept`.
    std::shared_ptr<const tarn::testing::served_call>
    call_without_answer(std::shared_ptr<client::exchange_ctx>& kept) {
        connect();
        bus.add_object(
            "slow",
            {{"work",
              {[&kept](const std::shared_ptr<client::exchange_ctx>& ctx) { kept = ctx; }, {}}}},
            {});
        loop->drain();
        auto served = bus.call_published("slow", "work");
        loop->drain();
        return served;
    }

    const std::shared_ptr<manual_loop> loop = std::make_shared<manual_loop>();
    fake_client bus{loop};
};

TEST_F(FakeClient, ACallEndsAsScripted) {
    connect();
    bus.on("demo", "echo", outcome::reply({{"msg", "hello"}}));
    record called;
    bus.invoke("demo", "echo", {{"n", 1}}, called.result(), seconds(5));
    EXPECT_THAT(called.codes, IsEmpty()) << "never inside the call";
    loop->drain();
    ASSERT_THAT(called.codes, ElementsAre(msg::success));
    ASSERT_EQ(called.replies.size(), 1U);
    EXPECT_EQ(called.replies[0].find("msg")->second.get<std::string>(), "hello");
    ASSERT_EQ(bus.calls().size(), 1U);
    EXPECT_EQ(bus.calls()[0].path, "demo");
    EXPECT_EQ(bus.calls()[0].method, "echo");
    EXPECT_EQ(bus.calls()[0].args.find("n")->second.get<int>(), 1);
    EXPECT_EQ(bus.calls()[0].timeout, seconds(5));
}

TEST_F(FakeClient, OutcomesForTheNextCallsComeBeforeTheGeneralOne) {
    connect();
    bus.on("demo", "echo", outcome::reply({}));
    bus.once("demo", "echo", outcome::failure(msg::permission_denied));
    bus.once("demo", "echo", outcome::failure(msg::timeout));
    record called;
    for (int i = 0; i < 3; ++i) {
        bus.invoke("demo", "echo", {}, called.result(), seconds(0));
    }
    loop->drain();
    EXPECT_THAT(called.codes, ElementsAre(msg::permission_denied, msg::timeout, msg::success));
}

TEST_F(FakeClient, AnAnswerMayDependOnTheArguments) {
    connect();
    bus.on("math", "double", [](const tarn::blob::table& args) {
        return outcome::reply({{"result", 2 * args.find("n")->second.get<int>()}});
    });
    record called;
    bus.invoke("math", "double", {{"n", 21}}, called.result(), seconds(0));
    loop->drain();
    ASSERT_EQ(called.replies.size(), 1U);
    EXPECT_EQ(called.replies[0].find("result")->second.get<int>(), 42);
}

TEST_F(FakeClient, WhatIsNotScriptedIsNotThere) {
    connect();
    bus.on("demo", "echo", outcome::reply({}));
    record called;
    bus.invoke("nobody", "echo", {}, called.result(), seconds(0));
    bus.invoke("demo", "fly", {}, called.result(), seconds(0));
    loop->drain();
    EXPECT_THAT(called.codes, ElementsAre(msg::not_found, msg::method_not_found));
}

TEST_F(FakeClient, APathThatEndsInAStarReachesTheLastThatBeginsSo) {
    connect();
    for (const std::string path : {"demo.a", "demo.c", "demo.b", "else"}) {
        bus.on(path, "echo", outcome::reply({{"from", path}}));
    }
    bus.on("demo.d*", "echo", outcome::reply({{"from", "the script of the pattern"}}));
    record called;
    for (const auto* path : {"demo*", "demo.b*", "demo.d*", "nobody*"}) {
        bus.invoke(path, "echo", {}, called.result(), seconds(0));
    }
    bus.invoke("demo*", "fly", {}, called.result(), seconds(0));
    loop->drain();
    EXPECT_THAT(called.codes, ElementsAre(msg::success, msg::success, msg::success, msg::not_found,
                                          msg::method_not_found));
    ASSERT_EQ(called.replies.size(), 3U);
    EXPECT_EQ(called.replies[0].find("from")->second.get<std::string>(), "demo.c");
    EXPECT_EQ(called.replies[1].find("from")->second.get<std::string>(), "demo.b");
    EXPECT_EQ(called.replies[2].find("from")->second.get<std::string>(),
              "the script of the pattern");
    EXPECT_EQ(bus.calls()[0].path, "demo*");
}

TEST_F(FakeClient, ACallWithoutAConnectionFails) {
    record called;
    bus.invoke("demo", "echo", {}, called.result(), seconds(0));
    loop->drain();
    EXPECT_THAT(called.codes, ElementsAre(msg::connection_failed));
    EXPECT_EQ(bus.calls().size(), 1U) << "recorded all the same";
}

TEST_F(FakeClient, AnUnansweredCallExpiresWhenTheTestMovesTheClock) {
    connect();
    bus.on("demo", "hang", outcome::no_answer());
    record called;
    bus.invoke("demo", "hang", {}, called.result(), seconds(3600));
    loop->drain();
    EXPECT_EQ(bus.pending_calls(), 1U);
    loop->advance(seconds(3599));
    EXPECT_THAT(called.codes, IsEmpty());
    loop->advance(seconds(1));
    EXPECT_THAT(called.codes, ElementsAre(msg::timeout));
    EXPECT_EQ(bus.pending_calls(), 0U);
}

TEST_F(FakeClient, AReleasedCallIsSilent) {
    connect();
    bus.on("demo", "echo", outcome::reply({}));
    record called;
    auto link = bus.invoke("demo", "echo", {}, called.result(), seconds(10));
    EXPECT_TRUE(link.active());
    link.release();
    EXPECT_FALSE(link.active());
    loop->drain();
    EXPECT_THAT(called.codes, IsEmpty());
    EXPECT_EQ(loop->timers_alive(), 0U);
}

TEST_F(FakeClient, ValuesArriveAsTheBusCarriesThem) {
    connect();
    tarn::blob::table arrived;
    bus.on("demo", "echo", [&](const tarn::blob::table& args) {
        arrived = args;
        return outcome::reply({});
    });
    record called;
    bus.invoke("demo", "echo", {{"flag", true}, {"text", std::string("a\0b", 3)}}, called.result(),
               seconds(0));
    bus.invoke("demo", "echo", {{"nothing", tarn::blob::attr()}}, called.result(), seconds(0));
    loop->drain();
    EXPECT_EQ(arrived.find("flag")->second.get<unsigned char>(), 1U);
    EXPECT_EQ(arrived.find("text")->second.get<std::string>(), "a");
    EXPECT_THAT(called.codes, ElementsAre(msg::success, msg::parse_error));
}

TEST_F(FakeClient, AScriptedReplyWithoutAnEncodingIsAMistakeOfTheTest) {
    connect();
    bus.on("demo", "echo", outcome::reply({{"nothing", tarn::blob::attr()}}));
    bus.invoke("demo", "echo", {}, {}, seconds(0));
    EXPECT_THROW(loop->drain(), std::logic_error);
}

TEST_F(FakeClient, TheStatesComeInTheirOrder) {
    std::vector<state> seen;
    bus.notify_on_state_change([&](state s) { seen.push_back(s); });
    record told;
    bus.connect(told.completion());
    EXPECT_THAT(seen, ElementsAre(state::connecting));
    loop->drain();
    bus.disconnect(told.completion());
    EXPECT_EQ(bus.get_state(), state::disconnecting);
    loop->drain();
    EXPECT_THAT(seen, ElementsAre(state::connecting, state::connected, state::disconnecting,
                                  state::disconnected));
    EXPECT_THAT(bus.states(), ElementsAre(state::disconnected, state::connecting, state::connected,
                                          state::disconnecting, state::disconnected));
    EXPECT_THAT(told.codes, ElementsAre(std::error_code(), std::error_code()));
}

TEST_F(FakeClient, AnAttemptWithoutABusFails) {
    bus.set_bus(fake_client::bus::absent);
    record told;
    bus.connect(told.completion());
    loop->drain();
    EXPECT_THAT(told.codes, ElementsAre(generic::unknown_error));
    EXPECT_EQ(bus.get_state(), state::disconnected);
}

TEST_F(FakeClient, AnAttemptOnASilentBusWaitsForTheTest) {
    bus.set_bus(fake_client::bus::silent);
    record told;
    bus.connect(told.completion());
    loop->drain();
    EXPECT_EQ(bus.get_state(), state::connecting);
    bus.set_bus(fake_client::bus::present);
    loop->drain();
    EXPECT_THAT(told.codes, ElementsAre(std::error_code()));
}

TEST_F(FakeClient, ADisconnectDuringAnAttemptEndsItsConnection) {
    record connected;
    record disconnected;
    bus.connect(connected.completion());
    bus.disconnect(disconnected.completion());
    loop->drain();
    EXPECT_THAT(connected.codes, ElementsAre(std::error_code()));
    EXPECT_THAT(disconnected.codes, ElementsAre(std::error_code()));
    EXPECT_EQ(bus.get_state(), state::disconnected);
}

TEST_F(FakeClient, ALostConnectionEndsCallsAndForgetsObjects) {
    connect();
    bus.on("demo", "hang", outcome::no_answer());
    bus.add_object("own", {}, {});
    record called;
    bus.invoke("demo", "hang", {}, called.result(), seconds(0));
    loop->drain();
    EXPECT_THAT(bus.published(), ElementsAre("own"));
    bus.lose_connection();
    loop->drain();
    EXPECT_THAT(called.codes, ElementsAre(msg::connection_failed));
    EXPECT_THAT(bus.published(), IsEmpty());
    EXPECT_EQ(bus.get_state(), state::disconnected);
}

TEST_F(FakeClient, ReconnectsAfterTheDelayOfTheBackOff) {
    std::vector<long long> asked;
    bus.auto_connect([&](long long attempt) {
        asked.push_back(attempt);
        return seconds(10 * attempt);
    });
    loop->drain();
    bus.set_bus(fake_client::bus::absent);
    bus.lose_connection();
    loop->drain();
    EXPECT_EQ(bus.get_state(), state::disconnected);
    loop->advance(seconds(10));
    loop->drain();
    EXPECT_THAT(asked, ElementsAre(1, 2));
    bus.set_bus(fake_client::bus::present);
    loop->advance(seconds(19));
    loop->drain();
    EXPECT_EQ(bus.get_state(), state::disconnected);
    loop->advance(seconds(1));
    loop->drain();
    EXPECT_EQ(bus.get_state(), state::connected);
}

TEST_F(FakeClient, ReconnectionEndsWithItsLinkAndWithAShortDelay) {
    auto link = bus.auto_connect([](long long) { return seconds(1); });
    EXPECT_TRUE(link.active());
    loop->drain();
    link.release();
    EXPECT_FALSE(link.active());
    bus.lose_connection();
    loop->drain();
    EXPECT_THAT(loop->armed_timers(), IsEmpty());

    link = bus.auto_connect([](long long) { return seconds(0); });
    loop->drain();
    bus.lose_connection();
    loop->drain();
    EXPECT_FALSE(link.active());
}

TEST_F(FakeClient, APublishedObjectIsCalledDirectly) {
    connect();
    record added;
    bus.add_object("math",
                   {{"add",
                     {[](const std::shared_ptr<client::exchange_ctx>& ctx) {
                          const auto a = ctx->args.find("a")->second.get<unsigned>();
                          const auto b = ctx->args.find("b")->second.get<unsigned>();
                          ctx->send({{"sum", a + b}}, {});
                      },
                      {{"a", typeid(unsigned)}, {"b", typeid(unsigned)}}}}},
                   added.completion());
    loop->drain();
    ASSERT_THAT(added.codes, ElementsAre(msg::success));
    const auto served = bus.call_published("math", "add", {{"a", 1}, {"b", 2}, {"c", "left out"}});
    EXPECT_FALSE(served->status) << "runs on the loop";
    loop->drain();
    EXPECT_EQ(served->status, msg::success);
    ASSERT_EQ(served->replies.size(), 1U);
    EXPECT_EQ(served->replies.front().find("sum")->second.get<unsigned>(), 3U);

    const auto refused = bus.call_published("math", "add");
    const auto unknown = bus.call_published("math", "subtract");
    const auto nobody = bus.call_published("nobody", "add");
    loop->drain();
    EXPECT_EQ(refused->status, msg::unknown_error) << "an empty message where fields are expected";
    EXPECT_EQ(unknown->status, msg::method_not_found);
    EXPECT_EQ(nobody->status, msg::not_found);
}

TEST_F(FakeClient, AnAnswerMayComeLaterAndFromAnotherThread) {
    std::shared_ptr<client::exchange_ctx> kept;
    const auto served = call_without_answer(kept);
    EXPECT_FALSE(served->status);
    ASSERT_TRUE(kept);
    std::thread([&] {
        kept->send({{"done", true}}, {});
        kept->respond(std::make_error_code(std::errc::io_error));
    }).join();
    EXPECT_EQ(served->status, msg::unknown_error) << "no status of the bus";
    EXPECT_EQ(served->replies.size(), 1U);
    EXPECT_TRUE(kept->expired());
    record sent;
    kept->send({}, sent.completion());
    loop->drain();
    EXPECT_THAT(sent.codes, ElementsAre(msg::connection_failed));
}

TEST_F(FakeClient, AContextExpiresWithItsConnection) {
    std::shared_ptr<client::exchange_ctx> kept;
    const auto served = call_without_answer(kept);
    bus.lose_connection();
    EXPECT_TRUE(kept->expired());
    kept->respond({});
    EXPECT_FALSE(served->status);
}

TEST_F(FakeClient, TheCodeUnderTestMayCallItsOwnObject) {
    connect();
    bus.add_object(
        "own",
        {{"ask",
          {[](const std::shared_ptr<client::exchange_ctx>& ctx) { ctx->send(ctx->args, {}); },
           {}}}},
        {});
    record called;
    bus.invoke("own", "ask", {{"n", 7}}, called.result(), seconds(0));
    loop->drain();
    EXPECT_THAT(called.codes, ElementsAre(msg::success));
    ASSERT_EQ(called.replies.size(), 1U);
    EXPECT_EQ(called.replies[0].find("n")->second.get<int>(), 7);
}

TEST_F(FakeClient, NamesAreTakenOnceAndAccessMayBeRefused) {
    record told;
    bus.add_object("early", {}, told.completion());
    connect();
    bus.add_object("own", {}, told.completion());
    bus.add_object("own", {}, told.completion());
    bus.add_object("typed", {{"m", {{}, {{"n", typeid(int)}}}}}, told.completion());
    bus.refuse_objects(msg::permission_denied);
    bus.add_object("other", {}, told.completion());
    bus.del_object("own", true, told.completion());
    bus.del_object("own", true, told.completion());
    loop->drain();
    EXPECT_THAT(told.codes, ElementsAre(msg::connection_failed, msg::success, msg::invalid_argument,
                                        msg::invalid_argument, msg::permission_denied, msg::success,
                                        msg::not_found));
}

TEST_F(FakeClient, CancelEndsEverythingBeforeItReturns) {
    connect();
    bus.on("demo", "hang", outcome::no_answer());
    record called;
    record added;
    record disconnected;
    bus.invoke("demo", "hang", {}, called.result(), seconds(0));
    bus.add_object("own", {}, added.completion());
    bus.disconnect(disconnected.completion());
    bus.cancel();
    EXPECT_THAT(called.codes, ElementsAre(generic::aborted));
    EXPECT_THAT(added.codes, ElementsAre(generic::aborted));
    EXPECT_THAT(disconnected.codes, ElementsAre(std::error_code()));
    EXPECT_EQ(bus.get_state(), state::disconnected);
    EXPECT_THAT(bus.published(), IsEmpty());
    loop->drain();
    EXPECT_EQ(bus.get_state(), state::disconnected);
    connect();
}

TEST_F(FakeClient, CancelDestroysTheHandlerOfAMethodThatOwnsTheContextOfACall) {
    connect();
    auto kept = std::make_shared<std::shared_ptr<client::exchange_ctx>>();
    const std::weak_ptr<void> watch = kept;
    bus.add_object(
        "slow",
        {{"work", {[kept](const std::shared_ptr<client::exchange_ctx>& ctx) { *kept = ctx; }, {}}}},
        {});
    kept.reset();
    loop->drain();
    bus.call_published("slow", "work");
    loop->drain();
    EXPECT_FALSE(watch.expired());
    bus.cancel();
    EXPECT_TRUE(watch.expired());
}

TEST_F(FakeClient, AScriptThatOwnsTheContextOfACallMayBeReplaced) {
    std::shared_ptr<client::exchange_ctx> kept;
    const auto served = call_without_answer(kept);
    bus.on("demo", "echo", [owned = std::exchange(kept, nullptr)](const tarn::blob::table&) {
        return outcome::reply({});
    });
    bus.on("demo", "echo", outcome::reply({}));
    EXPECT_EQ(served->status, msg::success);
}

TEST_F(FakeClient, ASubscriberMayChangeTheState) {
    std::vector<state> seen;
    bus.notify_on_state_change([&](state s) {
        if (s == state::connected) {
            bus.disconnect({});
        }
    });
    auto second = bus.notify_on_state_change([&](state s) { seen.push_back(s); });
    bus.connect({});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre(state::connecting, state::disconnecting, state::connected,
                                  state::disconnected))
        << "the change is reported inside the call that makes it";
    second.release();
    EXPECT_FALSE(second.active());
}

TEST_F(FakeClient, ASubscriberThatThrowsHoldsUpNeitherOthersNorReconnection) {
    std::vector<state> seen;
    bool throws = true;
    bus.notify_on_state_change([&](state s) {
        seen.push_back(s);
        if (s == state::connected && std::exchange(throws, false)) {
            throw std::runtime_error("a subscriber's");
        }
    });
    const auto link = bus.auto_connect([](long long) { return seconds(10); });
    EXPECT_THROW(loop->drain(), std::runtime_error);
    EXPECT_EQ(bus.get_state(), state::connected);
    bus.lose_connection();
    loop->drain();
    loop->advance(seconds(10));
    loop->drain();
    EXPECT_THAT(seen, ElementsAre(state::connecting, state::connected, state::disconnecting,
                                  state::disconnected, state::connecting, state::connected));
    EXPECT_TRUE(link.active());
}

TEST_F(FakeClient, AHandlerIsNotifiedWhenASubscriberThrows) {
    bus.notify_on_state_change([](state s) {
        if (s == state::connected || s == state::disconnected) {
            throw std::runtime_error("a subscriber's");
        }
    });
    record told;
    bus.on("demo", "hang", outcome::no_answer());
    bus.connect(told.completion());
    EXPECT_THROW(loop->drain(), std::runtime_error);
    EXPECT_THAT(told.codes, ElementsAre(std::error_code()));
    record called;
    bus.invoke("demo", "hang", {}, called.result(), seconds(0));
    bus.add_object("own", {}, {});
    bus.disconnect(told.completion());
    EXPECT_THROW(loop->drain(), std::runtime_error);
    EXPECT_THAT(told.codes, ElementsAre(std::error_code(), std::error_code()));
    EXPECT_THAT(called.codes, ElementsAre(msg::connection_failed));
    EXPECT_THAT(bus.published(), IsEmpty());
}

TEST_F(FakeClient, GivesTheLoopThatItWasMadeWith) {
    EXPECT_EQ(bus.get_event_loop().lock(), loop);
}

TEST(FakeClientEnd, NothingThatIsQueuedRunsAfterItsEnd) {
    const auto loop = std::make_shared<manual_loop>();
    int told = 0;
    tarn::utils::link link;
    {
        fake_client bus(loop);
        bus.auto_connect([](long long) { return seconds(1); });
        link = bus.invoke(
            "demo", "echo", {},
            [&](const std::list<tarn::blob::attr>&, const std::error_code&) { ++told; },
            seconds(10));
    }
    loop->drain();
    loop->advance(seconds(5));
    EXPECT_EQ(told, 0);
}

/// A client, and handlers that own the links of what they wait for, each with something that uses
/// the client when it is destroyed.
class FakeClientEndOwning : public ::testing::Test {
protected:
    /// What a handler is to own.
    struct owned {
        std::shared_ptr<tarn::utils::link> own_link;
        std::shared_ptr<void> noted;
    };
    owned note() {
        ++owners;
        return {std::make_shared<tarn::utils::link>(),
                std::shared_ptr<void>(nullptr, [this](void*) {
                    ++destroyed;
                    bus.get_state();
                })};
    }
    client::completion_handler completion(const owned& what) {
        return [this, what](const std::error_code&) {
            ++told;
        };
    }
    void call(const owned& what) {
        *what.own_link = bus.invoke(
            "demo", "hang", {},
            [this, what](const std::list<tarn::blob::attr>&, const std::error_code&) { ++told; },
            seconds(10));
    }
    void subscribe(const owned& what) {
        *what.own_link = bus.notify_on_state_change([what](state) {});
    }
    void listen(const owned& what) {
        *what.own_link =
            bus.get_bus().listen("*", [what](const std::string&, const tarn::bus::table&) {});
    }
    void withdraw(const owned& what) {
        *what.own_link = bus.del_object("nobody", true, completion(what));
    }
    void publish(const owned& what) {
        const auto kept = std::make_shared<std::shared_ptr<client::exchange_ctx>>();
        bus.add_object(
            "slow",
            {{"work",
              {[what, kept](const std::shared_ptr<client::exchange_ctx>& ctx) { *kept = ctx; },
               {}}}},
            {});
        loop->drain();
        bus.call_published("slow", "work");
        loop->drain();
    }
    void end() {
        ended.reset();
        EXPECT_EQ(destroyed, owners);
        loop->drain();
        loop->advance(seconds(20));
        EXPECT_EQ(told, 0);
    }

    const std::shared_ptr<manual_loop> loop = std::make_shared<manual_loop>();
    std::unique_ptr<fake_client> ended = std::make_unique<fake_client>(loop);
    fake_client& bus = *ended; ///< also while it is being destroyed
    int owners = 0;
    int destroyed = 0;
    int told = 0;
};

TEST_F(FakeClientEndOwning, DestroysTheHandlersOfCalls) {
    bus.on("demo", "hang", outcome::no_answer());
    bus.connect({});
    loop->drain();
    call(note());
    loop->drain();
    call(note());
    end();
}

TEST_F(FakeClientEndOwning, DestroysSubscribers) {
    subscribe(note());
    end();
}

TEST_F(FakeClientEndOwning, DestroysTheHandlersOfMethods) {
    bus.connect({});
    loop->drain();
    publish(note());
    end();
}

TEST_F(FakeClientEndOwning, DestroysTheHandlersThatWaitForTheConnection) {
    bus.set_bus(fake_client::bus::silent);
    for (const bool disconnecting : {false, true}) {
        const owned what = note();
        *what.own_link =
            disconnecting ? bus.disconnect(completion(what)) : bus.connect(completion(what));
    }
    end();
}

TEST_F(FakeClientEndOwning, DestroysTheHandlersOfWhatIsKnown) {
    withdraw(note());
    end();
}

TEST_F(FakeClientEndOwning, DestroysWhatADestructorBegins) {
    std::shared_ptr<void> begins(nullptr, [this](void*) {
        call(note());
        subscribe(note());
        listen(note());
    });
    bus.notify_on_state_change([begins](state) {});
    begins.reset();
    EXPECT_EQ(owners, 0);
    end();
    EXPECT_EQ(owners, 3);
}

} // namespace
