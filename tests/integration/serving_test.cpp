/// libtarn serves callers of other processes.
#include "integration/processes.h"

namespace tarn::test {
namespace {

using error::msg;

class Serving : public processes_test {
protected:
    static std::unique_ptr<child_process> start_caller(const std::string& path,
                                                       const std::string& method,
                                                       const std::vector<std::string>& fields) {
        std::vector<std::string> words{TARN_TEST_CALLER, path, method, "20000"};
        words.insert(words.end(), fields.begin(), fields.end());
        return std::make_unique<child_process>(words);
    }

    /// All that a caller on plain libubus prints, from its first reply or status on.
    static std::string plain_call(const std::string& path, const std::string& method,
                                  const std::vector<std::string>& fields = {}) {
        const auto caller = start_caller(path, method, fields);
        caller->wait_for_line("calling");
        return caller->read_rest();
    }
};

TEST_F(Serving, AnswersAPlainCallerAtOnce) {
    const auto service = start_example();
    const std::string answer = plain_call("example", "time");
    EXPECT_NE(answer.find("  seconds (type"), std::string::npos) << answer;
    EXPECT_NE(answer.find("status 0\n"), std::string::npos) << answer;
    expect_orderly_end(*service);
}

TEST_F(Serving, AnswersAPlainCallerThroughAPolicy) {
    const auto service = start_example();
    const std::string answer = plain_call("example", "greet", {"name=lan", "unasked:1"});
    EXPECT_NE(answer.find("  greeting=Hello, lan.\nstatus 0\n"), std::string::npos) << answer;
    expect_orderly_end(*service);
}

TEST_F(Serving, StreamsSeveralRepliesToAPlainCallerInOrder) {
    const auto service = start_example();
    const auto caller = start_caller("example", "count", {"to:100"});
    for (int n = 1; n <= 100; ++n) {
        EXPECT_EQ(caller->wait_for_line("  n:"), "  n:" + std::to_string(n));
    }
    EXPECT_EQ(caller->read_rest(), "status 0\n");
    expect_orderly_end(*service);
}

TEST_F(Serving, RefusesAPlainCallerWithTheStatusOfTheHandler) {
    const auto service = start_example();
    EXPECT_EQ(plain_call("example", "sum", {"numbers:1"}), "status 2\n");
    expect_orderly_end(*service);
}

TEST_F(Serving, APlainCallerOfAnUnknownMethodIsToldSo) {
    const auto service = start_example();
    EXPECT_EQ(plain_call("example", "other"), "status 3\n");
    expect_orderly_end(*service);
}

TEST_F(Serving, AnswersALibtarnCallerFromAWorkerThread) {
    const auto service = start_example();
    connect();
    const auto sum = call("example", "sum", {{"numbers", {1, 2, -40}}});
    ASSERT_EQ(sum.code(), make_error_code(msg::success));
    EXPECT_EQ(sum.reply().find("sum")->second.get<long long>(), -37);
    bus().cancel();
    expect_orderly_end(*service);
}

TEST_F(Serving, ACallerKilledBeforeTheAnswerDisturbsNobody) {
    connect();
    std::vector<context> kept;
    publish("keeper", {{"keep", {[&](const context& ctx) { kept.push_back(ctx); }, {}}}});
    const auto doomed = start_caller("keeper", "keep", {});
    run_until([&] { return kept.size() == 1; });
    const auto patient = start_caller("keeper", "keep", {});
    run_until([&] { return kept.size() == 2; });
    doomed->kill(SIGKILL);
    doomed->wait();

    outcome sent;
    for (const context& ctx : kept) {
        ctx->send({{"text", "late"}}, sent.handler());
        ctx->respond(msg::success);
    }
    run_until([&] { return sent.count() == 2; });
    EXPECT_EQ(sent.code(), make_error_code(msg::success))
        << "the bus took it; nobody listens any more";
    patient->wait_for_line("  text=late");
    EXPECT_EQ(patient->read_rest(), "status 0\n");
    EXPECT_TRUE(kept.front()->expired());
    EXPECT_EQ(bus().get_state(), client::state::connected);
}

TEST_F(Serving, AnObjectIsPublishedAgainOnANewBus) {
    const auto service = start_example();
    daemon_.restart();
    service->wait_for_line("service: ready");
    connect();
    EXPECT_EQ(call("example", "time").code(), make_error_code(msg::success));
    bus().cancel();
    expect_orderly_end(*service);
}

} // namespace
} // namespace tarn::test
