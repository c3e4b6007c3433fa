/// Answering incoming calls: at once, later, from other threads, and not at all.
#include "client/client_fixture.h"

#include "support/scripted_bus.h"
#include "tarn/error.h"

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;
using context = std::shared_ptr<client::exchange_ctx>;

class ExchangeCtx : public client_on_bus_test {
protected:
    void SetUp() override { connect(); }

    /// Publishes the object "own" with the one method "serve".
    static void publish(const client::method_handler& serve) {
        outcome added;
        bus().add_object("own", {{"serve", {serve, {}}}}, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code()) << added.code().message();
    }

    /// Publishes "own" with a method that keeps its contexts in `kept_`.
    void publish_keeping() {
        publish([this](const context& ctx) { kept_.push_back(ctx); });
    }

    static utils::link call(call_outcome& done, const blob::table& args = {}) {
        return bus().invoke("own", "serve", args, done.handler(), seconds(0));
    }

    static void finish(const call_outcome& done) {
        run_until([&] { return done.reported(); });
    }

    /// One call of "own", whose context is kept open.
    context open_call(call_outcome& done) {
        const auto before = kept_.size();
        call(done);
        run_until([&] { return kept_.size() > before; });
        return kept_.back();
    }

    void TearDown() override {
        kept_.clear();
        client_on_bus_test::TearDown();
    }

    std::vector<context> kept_;
};

TEST_F(ExchangeCtx, CarriesTheArgumentsAndAnswersAtOnce) {
    publish([](const context& ctx) {
        EXPECT_TRUE(*ctx);
        EXPECT_FALSE(ctx->expired());
        ctx->send({{"twice", ctx->args.find("n")->second.get<int>() * 2}}, {});
        ctx->respond(msg::success);
    });
    call_outcome done;
    call(done, {{"n", 21}});
    finish(done);
    EXPECT_FALSE(done.code());
    ASSERT_EQ(done.replies().size(), 1U);
    EXPECT_EQ(done.reply().find("twice")->second.get<int>(), 42);
}

TEST_F(ExchangeCtx, AHandlerThatDropsItsContextAnswersSuccessWithoutData) {
    publish([](const context&) {});
    call_outcome done;
    call(done);
    finish(done);
    EXPECT_FALSE(done.code());
    EXPECT_TRUE(done.replies().empty());
}

TEST_F(ExchangeCtx, AContextAnsweredLaterFromAnotherThreadCompletesTheCallThen) {
    publish_keeping();
    call_outcome done;
    context ctx = open_call(done);
    kept_.clear();
    loop()->drain();
    EXPECT_FALSE(done.reported());
    std::thread worker([ctx = std::move(ctx)] {
        ctx->send({{"part", 1}}, {});
        ctx->send({{"part", 2}}, {});
        ctx->respond(msg::permission_denied);
    });
    finish(done);
    worker.join();
    EXPECT_EQ(done.code(), make_error_code(msg::permission_denied));
    ASSERT_EQ(done.replies().size(), 2U) << "sent before the completion, delivered before it";
    EXPECT_EQ(done.replies().back().get<blob::table>().find("part")->second.get<int>(), 2);
}

TEST_F(ExchangeCtx, TheLastOwnerLettingGoCompletesTheCall) {
    publish_keeping();
    call_outcome done;
    context ctx = open_call(done);
    context other = ctx;
    kept_.clear();
    ctx.reset();
    loop()->drain();
    EXPECT_FALSE(done.reported());
    other.reset();
    finish(done);
    EXPECT_FALSE(done.code());
}

TEST_F(ExchangeCtx, AfterRespondItIsExpiredAndSendReportsConnectionFailed) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    ctx->respond(msg::success);
    EXPECT_FALSE(*ctx);
    EXPECT_TRUE(ctx->expired());
    outcome sent;
    const auto link = ctx->send({{"late", true}}, sent.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(sent.reported()) << "never before send() returns";
    EXPECT_FALSE(ctx->send({}, {}).active());
    run_until([&] { return sent.reported(); });
    EXPECT_EQ(sent.code(), make_error_code(msg::connection_failed));
    finish(done);
    EXPECT_TRUE(done.replies().empty());
}

TEST_F(ExchangeCtx, SendReportsSuccessOnce) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    outcome sent;
    const auto link = ctx->send({{"n", 1}}, sent.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(sent.reported());
    run_until([&] { return sent.reported(); });
    EXPECT_FALSE(sent.code());
    EXPECT_FALSE(link.active());
    loop()->drain();
    EXPECT_EQ(sent.count(), 1U);
}

TEST_F(ExchangeCtx, ReleasingTheLinkOfASendSuppressesTheReportNotTheReply) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    outcome sent;
    auto link = ctx->send({{"n", 1}}, sent.handler());
    link.release();
    EXPECT_FALSE(link.active());
    ctx->respond(msg::success);
    finish(done);
    EXPECT_EQ(done.replies().size(), 1U);
    EXPECT_FALSE(sent.reported());
}

TEST_F(ExchangeCtx, StatusesAreTranslatedOnTheirWayToTheBus) {
    const std::vector<std::pair<std::error_code, msg>> statuses{
        {error::generic::aborted, msg::unknown_error},
        {msg::parse_error, msg::unknown_error},
        {std::make_error_code(std::errc::io_error), msg::unknown_error},
        {msg::no_response, msg::no_response},
        {msg::connection_failed, msg::connection_failed},
        {{}, msg::success},
    };
    publish_keeping();
    for (const auto& [given, seen] : statuses) {
        call_outcome done;
        const context ctx = open_call(done);
        kept_.clear();
        ctx->respond(given);
        finish(done);
        EXPECT_EQ(done.code().value(), static_cast<int>(seen)) << given.message();
    }
}

TEST_F(ExchangeCtx, DataThatCannotBeEncodedIsAParseErrorAndTheCallStaysOpen) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    outcome bad;
    ctx->send({{"empty", blob::attr()}}, bad.handler());
    run_until([&] { return bad.reported(); });
    EXPECT_EQ(bad.code(), make_error_code(msg::parse_error));
    EXPECT_FALSE(ctx->expired());
    outcome good;
    ctx->send({{"n", 1}}, good.handler());
    run_until([&] { return good.reported(); });
    EXPECT_FALSE(good.code());
    ctx->respond(msg::success);
    finish(done);
    EXPECT_EQ(done.replies().size(), 1U);
}

TEST_F(ExchangeCtx, AReplyBeyondTheBusLimitIsAnInvalidArgumentAndEverythingStays) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    // More than a bus message takes, more than a message buffer can hold at all, and those whose
    // length runs over to 0 at the buffer's last byte.
    for (const std::size_t size :
         {std::size_t{1} << 20U, std::size_t{17} << 20U, std::size_t{16777201},
          std::size_t{16777200}, std::size_t{16777201 - 8}, std::size_t{16777201 - 12}}) {
        for (const blob::attr& value :
             {blob::attr(std::string(size, 'x')), blob::attr(blob::bytes(size))}) {
            outcome big;
            ctx->send({{"b", value}}, big.handler());
            run_until([&] { return big.reported(); });
            EXPECT_EQ(big.code(), make_error_code(msg::invalid_argument)) << size;
        }
    }
    EXPECT_EQ(bus().get_state(), client::state::connected);
    EXPECT_FALSE(ctx->expired());
    ctx->respond(msg::success);
    finish(done);
    EXPECT_FALSE(done.code());
    kept_.clear();
    call_outcome again;
    open_call(again)->respond(msg::success);
    finish(again);
}

TEST_F(ExchangeCtx, TheLargestReplyThatTheBusTakesArrives) {
    // The message's head, the object's id, the data's head, the field's header with its name, and
    // the text's NUL.
    constexpr std::size_t around = 4 + 8 + 4 + 8 + 1;
    constexpr std::size_t largest = 1048576 - around;
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    outcome too_big;
    ctx->send({{"x", std::string(largest + 1, 'x')}}, too_big.handler());
    ctx->send({{"x", std::string(largest, 'x')}}, {});
    ctx->respond(msg::success);
    finish(done);
    EXPECT_EQ(too_big.code(), make_error_code(msg::invalid_argument));
    ASSERT_EQ(done.replies().size(), 1U);
    EXPECT_EQ(done.reply().find("x")->second.get<std::string>().size(), largest);
}

TEST_F(ExchangeCtx, AnAnswerJustBeforeADisconnectionIsSentAndReported) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    outcome sent;
    outcome disconnected;
    ctx->send({{"n", 1}}, sent.handler());
    ctx->respond(msg::success);
    bus().disconnect(disconnected.handler());
    EXPECT_TRUE(ctx->expired());
    run_until([&] { return disconnected.reported(); });
    EXPECT_FALSE(disconnected.code());
    ASSERT_EQ(sent.count(), 1U);
    EXPECT_FALSE(sent.code()) << sent.code().message();
}

TEST_F(ExchangeCtx, ADaemonThatHasStoppedHoldsUpADisconnectionForHalfASecondAtTheMost) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    daemon_.pause();
    outcome disconnected;
    const auto begin = std::chrono::steady_clock::now();
    ctx->send({{"n", 1}}, {});
    ctx->respond(msg::success);
    bus().disconnect(disconnected.handler());
    run_until([&] { return disconnected.reported(); });
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500))
        << "it may still read";
    EXPECT_FALSE(disconnected.code());
    EXPECT_EQ(bus().get_state(), client::state::disconnected);
    daemon_.resume();
    connect();
}

TEST_F(ExchangeCtx, AContextKeptAcrossAReconnectionStaysExpired) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    daemon_.restart();
    run_until_state(client::state::disconnected);
    EXPECT_TRUE(ctx->expired());
    connect();
    EXPECT_TRUE(ctx->expired());
    outcome sent;
    ctx->send({{"n", 1}}, sent.handler());
    ctx->respond(msg::success);
    run_until([&] { return sent.reported(); });
    EXPECT_EQ(sent.code(), make_error_code(msg::connection_failed));
    EXPECT_EQ(done.code(), make_error_code(msg::connection_failed));
}

TEST_F(ExchangeCtx, AConnectionThatEndsBeforeTheReplyIsSentDropsItUnreported) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    settle();
    daemon_.kill9();
    // The private thread knows; here it is not yet heard of.
    ASSERT_TRUE(loop()->wait_for_task(limit));
    ASSERT_FALSE(ctx->expired());
    outcome sent;
    const auto link = ctx->send({{"n", 1}}, sent.handler());
    EXPECT_TRUE(link.active());
    run_until_state(client::state::disconnected);
    run_until([&] { return !link.active(); });
    settle();
    EXPECT_EQ(sent.count(), 0U);
}

TEST_F(ExchangeCtx, CancelAbortsSendsInProgressAndContextsFallSilent) {
    publish_keeping();
    call_outcome done;
    const context ctx = open_call(done);
    outcome sent;
    ctx->send({{"n", 1}}, sent.handler());
    bus().cancel();
    EXPECT_EQ(sent.count(), 1U);
    EXPECT_EQ(sent.code(), make_error_code(error::generic::aborted));
    outcome after;
    EXPECT_FALSE(ctx->send({{"n", 2}}, after.handler()).active());
    EXPECT_TRUE(ctx->expired());
    loop()->drain();
    EXPECT_FALSE(after.reported());
}

TEST_F(ExchangeCtx, TenThousandCallsMayBeOpenAtOnce) {
    constexpr std::size_t calls = 10000;
    publish_keeping();
    std::size_t completed = 0;
    for (std::size_t n = 0; n < calls; ++n) {
        bus().invoke(
            "own", "serve", {},
            [&completed](const auto&, const std::error_code& code) {
                EXPECT_FALSE(code);
                ++completed;
            },
            seconds(0));
    }
    run_until([&] { return kept_.size() == calls; });
    EXPECT_EQ(completed, 0U);
    kept_.clear();
    run_until([&] { return completed == calls; });
}

TEST_F(ExchangeCtx, ACallerKilledBeforeTheAnswerDisturbsNobody) {
    publish_keeping();
    {
        child_process caller({TARN_TEST_CALLER, "own", "serve", "60000"});
        run_until([&] { return kept_.size() == 1; });
        caller.kill(SIGKILL);
        caller.wait();
    }
    outcome sent;
    kept_.front()->send({{"n", 1}}, sent.handler());
    kept_.front()->respond(msg::success);
    run_until([&] { return sent.reported(); });
    call_outcome after;
    open_call(after)->respond(msg::success);
    finish(after);
    EXPECT_FALSE(after.code());
    EXPECT_EQ(bus().get_state(), client::state::connected);
}

/// What the bus gets to read: a caller on libubus hears of the first completion only.
class AnswersOnTheWire : public client_test {
protected:
    void publish(const client::method_handler& serve) {
        outcome added;
        bus().connect({});
        bus().add_object("own", {{"serve", {serve, {}}}}, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code()) << added.code().message();
    }

    /// The completions so far and the next one, which must be that of `last`.
    std::vector<int> statuses_up_to(std::uint16_t last, std::size_t count) {
        std::vector<int> statuses;
        const auto any = [](std::uint16_t) {
            return true;
        };
        std::uint16_t seq = 0;
        for (const auto& completion : wire_.wait_for_completions(count, any)) {
            EXPECT_EQ(completion.first, ++seq) << "each call is completed once";
            statuses.push_back(completion.second);
        }
        EXPECT_EQ(seq, last);
        return statuses;
    }

    scripted_bus wire_;
};

TEST_F(AnswersOnTheWire, OnlyTheFirstRespondCounts) {
    context kept;
    publish([&kept](const context& ctx) {
        ctx->respond(msg::not_supported);
        ctx->respond(msg::success);
        kept = ctx;
    });
    wire_.call("own", "serve");
    run_until([&] { return kept != nullptr; });
    kept->respond(msg::permission_denied);
    kept.reset();
    settle();
    const auto last = wire_.call("own", "serve");
    run_until([&] { return kept != nullptr; });
    EXPECT_THAT(statuses_up_to(last, 2),
                ::testing::ElementsAre(static_cast<int>(msg::not_supported),
                                       static_cast<int>(msg::not_supported)));
}

TEST_F(AnswersOnTheWire, OneContextAnsweredFromManyThreadsAtOnceAnswersExactlyOnce) {
    constexpr std::size_t rounds = 50;
    std::vector<context> kept;
    publish([&kept](const context& ctx) { kept.push_back(ctx); });
    std::uint16_t last = 0;
    for (std::size_t round = 0; round < rounds; ++round) {
        last = wire_.call("own", "serve");
        run_until([&] { return kept.size() == 1; });
        std::vector<std::thread> threads;
        for (const msg status : {msg::not_found, msg::not_supported, msg::permission_denied}) {
            threads.emplace_back([ctx = kept.front(), status] {
                ctx->send({{"n", 1}}, {});
                ctx->respond(status);
            });
        }
        kept.clear();
        for (auto& thread : threads) {
            thread.join();
        }
        settle();
    }
    for (const int status : statuses_up_to(last, rounds)) {
        EXPECT_THAT(status, ::testing::AnyOf(static_cast<int>(msg::not_found),
                                             static_cast<int>(msg::not_supported),
                                             static_cast<int>(msg::permission_denied)));
    }
}

} // namespace
} // namespace tarn::test
