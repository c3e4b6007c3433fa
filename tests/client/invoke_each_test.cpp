/// Calls whose replies are told as they come.
#include "client/client_fixture.h"

#include "support/scripted_bus.h"
#include "tarn/error.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;
using context = std::shared_ptr<client::exchange_ctx>;

class InvokeEach : public client_on_bus_test {
protected:
    void SetUp() override {
        connect();
        const auto keep = [this](const context& ctx) {
            kept_.push_back(ctx);
        };
        outcome added;
        bus().add_object("own", {{"serve", {keep, {}}}}, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code());
    }

    void TearDown() override {
        kept_.clear();
        client_on_bus_test::TearDown();
    }

    utils::link call(seconds timeout = seconds(0)) {
        return bus().invoke_each("own", "serve", {}, each(), done_.handler(), timeout);
    }

    client::reply_handler each() {
        return [this](const blob::attr& reply) {
            const auto& fields = reply.get<blob::table>();
            const auto n = fields.find("n");
            told_.push_back(n == fields.end() ? -1 : n->second.get<int>());
        };
    }

    context open_call(seconds timeout = seconds(0)) {
        link_.assign(call(timeout));
        run_until([this] { return !kept_.empty(); });
        return kept_.front();
    }

    void finish() {
        run_until([this] { return done_.reported(); });
    }
    void run_until_told(std::size_t count) {
        run_until([this, count] { return told_.size() >= count; });
    }

    std::vector<context> kept_;
    std::vector<int> told_;
    outcome done_;
    utils::link link_;
};

TEST_F(InvokeEach, TellsEveryReplyWhileTheCallIsOpenAndThenTheOutcome) {
    const context ctx = open_call();
    for (int n = 1; n <= 3; ++n) {
        ctx->send({{"n", n}}, {});
        run_until_told(static_cast<std::size_t>(n));
        EXPECT_FALSE(done_.reported());
        EXPECT_TRUE(link_.active());
    }
    ctx->respond(msg::success);
    finish();
    EXPECT_FALSE(done_.code());
    EXPECT_FALSE(link_.active());
    EXPECT_EQ(told_, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(done_.count(), 1U);
}

TEST_F(InvokeEach, ARefusalComesAfterTheRepliesBeforeIt) {
    const context ctx = open_call();
    ctx->send({{"n", 1}}, {});
    ctx->respond(msg::permission_denied);
    finish();
    EXPECT_EQ(told_, std::vector<int>{1});
    EXPECT_EQ(done_.code(), make_error_code(msg::permission_denied));
}

TEST_F(InvokeEach, RepliesBeforeTheTimeLimitHaveBeenTold) {
    const context ctx = open_call(seconds(5));
    ctx->send({{"n", 1}}, {});
    run_until_told(1);
    loop()->advance(seconds(5));
    EXPECT_EQ(done_.count(), 1U);
    EXPECT_EQ(done_.code(), make_error_code(msg::timeout));
    ctx->send({{"n", 2}}, {});
    ctx->respond(msg::success);
    settle();
    EXPECT_EQ(told_, std::vector<int>{1}) << "nothing is told after the outcome";
    EXPECT_EQ(done_.count(), 1U);
}

TEST_F(InvokeEach, RepliesBeforeTheEndOfTheConnectionHaveBeenTold) {
    const context ctx = open_call();
    ctx->send({{"n", 1}}, {});
    run_until_told(1);
    daemon_.kill9();
    finish();
    EXPECT_EQ(done_.code(), make_error_code(msg::connection_failed));
    EXPECT_EQ(told_, std::vector<int>{1});
}

TEST_F(InvokeEach, CancelEndsItWithAborted) {
    open_call();
    bus().cancel();
    EXPECT_EQ(done_.count(), 1U);
    EXPECT_EQ(done_.code(), make_error_code(error::generic::aborted));
}

TEST_F(InvokeEach, NothingIsToldOnceTheLinkIsReleased) {
    const context ctx = open_call();
    ctx->send({{"n", 1}}, {});
    run_until_told(1);
    link_.release();
    ctx->send({{"n", 2}}, {});
    ctx->respond(msg::success);
    settle();
    settle();
    EXPECT_EQ(told_, std::vector<int>{1});
    EXPECT_FALSE(done_.reported());
}

TEST_F(InvokeEach, AReplyMayReleaseTheLink) {
    const auto first_is_enough = [this](const blob::attr&) {
        told_.push_back(0);
        link_.release();
    };
    link_.assign(
        bus().invoke_each("own", "serve", {}, first_is_enough, done_.handler(), seconds(0)));
    run_until([this] { return !kept_.empty(); });
    const context ctx = kept_.front();
    for (int n = 0; n < 5; ++n) {
        ctx->send({{"n", n}}, {});
    }
    ctx->respond(msg::success);
    call_outcome after;
    bus().invoke("nobody", "serve", {}, after.handler(), seconds(0));
    run_until([&] { return after.reported(); });
    settle();
    EXPECT_EQ(told_.size(), 1U);
    EXPECT_FALSE(done_.reported());
}

TEST_F(InvokeEach, WhatItsHandlersCapturedIsGoneWithTheCall) {
    auto for_each = std::make_shared<int>(0);
    auto for_outcome = std::make_shared<int>(0);
    const auto link = bus().invoke_each( // which does not keep it
        "own", "serve", {}, [for_each](const blob::attr&) {},
        [for_outcome](const std::error_code&) {}, seconds(0));
    run_until([this] { return !kept_.empty(); });
    EXPECT_EQ(for_each.use_count(), 2);
    kept_.front()->respond(msg::success);
    run_until([&] { return for_each.use_count() == 1 && for_outcome.use_count() == 1; });
}

TEST_F(InvokeEach, EmptyHandlersAreNotCalled) {
    bus().invoke_each("own", "serve", {}, {}, done_.handler(), seconds(0));
    const auto link = bus().invoke_each("own", "serve", {}, each(), {}, seconds(0));
    run_until([this] { return kept_.size() == 2; });
    for (const auto& ctx : kept_) {
        ctx->send({{"n", 7}}, {});
        ctx->respond(msg::success);
    }
    run_until([&] { return done_.reported() && !link.active(); });
    EXPECT_FALSE(done_.code());
    EXPECT_EQ(told_, std::vector<int>{7});
}

TEST_F(InvokeEach, AFailureToStartIsTheOutcome) {
    bus().invoke_each("nobody", "serve", {}, each(), done_.handler(), seconds(0));
    finish();
    EXPECT_EQ(done_.code(), make_error_code(msg::not_found));
    EXPECT_TRUE(told_.empty());
}

class InvokeEachOfAScriptedBus : public client_test {
protected:
    scripted_bus scripted_;
};

TEST_F(InvokeEachOfAScriptedBus, AReplyThatDoesNotDecodeIsAnEmptyTableAndAParseError) {
    outcome connected;
    bus().connect(connected.handler());
    run_until([&] { return connected.reported(); });
    scripted_.on_next(wire::invoke, [](const wire::bytes& healthy, const wire::received& request) {
        // A field whose type does not exist.
        const wire::bytes odd = wire::message(wire::data, request.seq(), request.peer(),
                                              wire::objid(scripted_bus::remote_id) +
                                                  wire::data_of(wire::field(9, "x", {0, 0, 0, 0})));
        return scripted_bus::answer{odd + healthy};
    });
    std::vector<std::size_t> sizes;
    outcome done;
    bus().invoke_each(
        scripted_bus::remote_path, scripted_bus::remote_method, {},
        [&](const blob::attr& reply) { sizes.push_back(reply.get<blob::table>().size()); },
        done.handler(), seconds(0));
    run_until([&] { return done.reported(); });
    EXPECT_EQ(sizes, (std::vector<std::size_t>{0, 1}));
    EXPECT_EQ(done.code(), make_error_code(msg::parse_error));
}

/// A client that knows nothing of invoke_each().
class plain_client : public client {
public:
    utils::link connect(const completion_handler&) override { return {}; }
    utils::link auto_connect(const backoff_function&) override { return {}; }
    utils::link disconnect(const completion_handler&) override { return {}; }
    utils::link notify_on_state_change(const state_handler&) override { return {}; }
    state get_state() const override { return state::connected; }
    bool is_active() const override { return true; }
    utils::link invoke(const std::string& path, const std::string& method,
                       const std::multimap<std::string, blob::attr>& args,
                       const result_handler& handler,
                       const std::chrono::seconds& timeout) override {
        called = path + "." + method + " " + std::to_string(args.size()) + " " +
                 std::to_string(timeout.count());
        handler({blob::attr(blob::table{{"n", 1}}), blob::attr(blob::table{{"n", 2}})},
                msg::no_response);
        return {};
    }
    utils::link add_object(const std::string&, const method_map&,
                           const completion_handler&) override {
        return {};
    }
    utils::link del_object(const std::string&, bool, const completion_handler&) override {
        return {};
    }
    void cancel() override {}

    std::string called;
};

TEST(InvokeEachOfAPlainClient, TellsTheRepliesAtTheEnd) {
    plain_client plain;
    std::vector<std::string> told;
    plain.invoke_each(
        "demo", "twice", {{"a", 1}},
        [&](const blob::attr& reply) {
            told.push_back(std::to_string(reply.get<blob::table>().begin()->second.get<int>()));
        },
        [&](const std::error_code& code) { told.push_back(code.message()); }, seconds(9));
    EXPECT_EQ(plain.called, "demo.twice 1 9");
    EXPECT_EQ(told, (std::vector<std::string>{"1", "2", "No response"}));
    plain.invoke_each("demo", "twice", {}, {}, {}, seconds(0));
}

} // namespace
} // namespace tarn::test
