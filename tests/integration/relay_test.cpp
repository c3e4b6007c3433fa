/// Three processes in a row: a method handler of the middle one calls the third.
#include "integration/processes.h"

namespace tarn::test {
namespace {

using error::msg;

class Relay : public processes_test {
protected:
    void SetUp() override {
        relay_ = start_relay();
        connect();
    }

    void TearDown() override {
        processes_test::TearDown();
        expect_orderly_end(*relay_);
    }

    static call_outcome forward(const std::string& path, const std::string& method,
                                blob::table more = {}) {
        more.emplace("path", path);
        more.emplace("method", method);
        return call("relay", "forward", more);
    }

    std::unique_ptr<child_process> relay_;
};

TEST_F(Relay, ForwardsToAPlainServiceFromInsideAMethodHandler) {
    start_service();
    const auto echoed = forward("demo", "echo", {{"deep", {{"n", -7}}}});
    ASSERT_EQ(echoed.code(), make_error_code(msg::success));
    const auto& deep = echoed.reply().find("deep")->second.get<blob::table>();
    EXPECT_EQ(deep.find("n")->second.get<int>(), -7);
}

TEST_F(Relay, ForwardsToALibtarnServiceFromInsideAMethodHandler) {
    const auto service = start_example();
    const auto sum = forward("example", "sum", {{"numbers", {40, 2}}});
    ASSERT_EQ(sum.code(), make_error_code(msg::success));
    EXPECT_EQ(sum.reply().find("sum")->second.get<long long>(), 42);
    expect_orderly_end(*service);
}

TEST_F(Relay, BringsBackEveryReplyInOrder) {
    const auto service = start_example();
    const auto counted = forward("example", "count", {{"to", 50}});
    ASSERT_EQ(counted.code(), make_error_code(msg::success));
    ASSERT_EQ(counted.replies().size(), 50U);
    int expected = 1;
    for (const auto& reply : counted.replies()) {
        EXPECT_EQ(reply.get<blob::table>().find("n")->second.get<int>(), expected++);
    }
    expect_orderly_end(*service);
}

TEST_F(Relay, BringsBackTheRefusal) {
    start_service();
    EXPECT_EQ(forward("demo", "deny").code(), make_error_code(msg::permission_denied));
    EXPECT_EQ(forward("demo", "other").code(), make_error_code(msg::method_not_found));
    EXPECT_EQ(forward("nobody", "echo").code(), make_error_code(msg::not_found));
}

TEST_F(Relay, ServesAPlainCallerWithTheAnswerOfAPlainService) {
    start_service();
    child_process caller(
        {TARN_TEST_CALLER, "relay", "forward", "20000", "path=demo", "method=echo", "text=hello"});
    caller.wait_for_line("  text=hello");
    EXPECT_EQ(caller.read_rest(), "status 0\n");
}

TEST_F(Relay, CallsBackIntoTheProcessThatIsCallingIt) {
    publish("here", {{"echo", {[](const context& ctx) { ctx->send(ctx->args, {}); }, {}}}});
    const auto echoed = forward("here", "echo", {{"n", 5}});
    ASSERT_EQ(echoed.code(), make_error_code(msg::success));
    EXPECT_EQ(echoed.reply().find("n")->second.get<int>(), 5);
}

TEST_F(Relay, CallsMadeInsideHandlersOfBothProcessesAtOnceAllEnd) {
    // this -> relay -> this.bounce -> relay -> this.echo
    publish("here",
            {{"echo", {[](const context& ctx) { ctx->send(ctx->args, {}); }, {}}},
             {"bounce",
              {[](const context& ctx) {
                   bus().invoke(
                       "relay", "forward", {{"path", "here"}, {"method", "echo"}},
                       [ctx](const std::list<blob::attr>& replies, const std::error_code& status) {
                           ctx->send({{"replies", static_cast<int>(replies.size())}}, {});
                           ctx->respond(status);
                       },
                       std::chrono::seconds(0));
               },
               {}}}});
    std::vector<call_outcome> calls(20);
    for (auto& done : calls) {
        bus().invoke("relay", "forward", {{"path", "here"}, {"method", "bounce"}}, done.handler(),
                     std::chrono::seconds(0));
    }
    for (const auto& done : calls) {
        run_until([&] { return done.reported(); });
        ASSERT_EQ(done.code(), make_error_code(msg::success));
        EXPECT_EQ(done.reply().find("replies")->second.get<int>(), 1);
    }
}

TEST_F(Relay, TheThirdProcessKilledDuringTheCallEndsItByTheLimitOfTheMiddleOne) {
    start_service();
    call_outcome open;
    bus().invoke("relay", "forward",
                 {{"path", "demo"}, {"method", "late"}, {"ms", 600000}, {"seconds", 3}},
                 open.handler(), std::chrono::seconds(0));
    // Messages of the relay reach the service in order: answered means that both arrived.
    ASSERT_EQ(forward("demo", "echo").code(), make_error_code(msg::success));
    service_->kill(SIGKILL);
    service_->wait();
    run_until([&] { return open.reported(); });
    EXPECT_EQ(open.code(), make_error_code(msg::timeout));
    EXPECT_EQ(open.count(), 1U);
}

} // namespace
} // namespace tarn::test
