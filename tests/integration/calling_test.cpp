/// libtarn calls services of other processes, which may die.
#include "integration/processes.h"

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

class Calling : public processes_test {
protected:
    void SetUp() override { connect(); }

    /// Has a call under way that the service will not answer before it is killed.
    static call_outcome call_without_answer(seconds time_limit) {
        call_outcome done;
        bus().invoke("demo", "late", {{"ms", 600000}}, done.handler(), time_limit);
        // Messages of one caller reach the service in order: answered means that both arrived.
        EXPECT_EQ(call("demo", "echo").code(), make_error_code(msg::success));
        EXPECT_FALSE(done.reported());
        return done;
    }

    void kill_service() {
        service_->kill(SIGKILL);
        service_->wait();
    }
};

TEST_F(Calling, GetsEveryReplyOfAPlainService) {
    start_service();
    const auto twice = call("demo", "twice");
    ASSERT_EQ(twice.code(), make_error_code(msg::success));
    ASSERT_EQ(twice.replies().size(), 2U);
    EXPECT_EQ(twice.replies().front().get<blob::table>().find("i")->second.get<int>(), 1);
    EXPECT_EQ(twice.replies().back().get<blob::table>().find("i")->second.get<int>(), 2);
}

TEST_F(Calling, GetsTheRefusalOfAPlainService) {
    start_service();
    EXPECT_EQ(call("demo", "deny").code(), make_error_code(msg::permission_denied));
}

TEST_F(Calling, AServiceKilledDuringACallEndsItByItsTimeLimit) {
    start_service();
    const auto open = call_without_answer(seconds(3));
    kill_service();
    call_until("demo", "echo", make_error_code(msg::not_found));
    run_hurried_until([&] { return open.reported(); });
    EXPECT_EQ(open.code(), make_error_code(msg::timeout));
    EXPECT_TRUE(open.replies().empty());
    EXPECT_EQ(bus().get_state(), client::state::connected);
}

TEST_F(Calling, AKilledServiceIsNotFoundAndFoundAgainOnceItIsBack) {
    start_service();
    const auto open = call_without_answer(seconds(3));
    kill_service();
    call_until("demo", "echo", make_error_code(msg::not_found));
    EXPECT_EQ(call("demo", "echo").code(), make_error_code(msg::not_found));
    start_service();
    EXPECT_EQ(call("demo", "echo").code(), make_error_code(msg::success));
    run_hurried_until([&] { return open.reported(); });
    EXPECT_EQ(open.count(), 1U);
}

TEST_F(Calling, ALibtarnServiceKilledDuringACallEndsItByItsTimeLimit) {
    const auto relay = start_relay();
    bool held = false;
    context kept;
    publish("here", {{"hold",
                      {[&](const context& ctx) {
                           kept = ctx;
                           held = true;
                       },
                       {}}}});
    call_outcome open;
    bus().invoke("relay", "forward", {{"path", "here"}, {"method", "hold"}}, open.handler(),
                 seconds(3));
    run_until([&] { return held; });
    relay->kill(SIGKILL);
    relay->wait();
    call_until("relay", "tally", make_error_code(msg::not_found));
    run_hurried_until([&] { return open.reported(); });
    EXPECT_EQ(open.code(), make_error_code(msg::timeout));
    kept.reset(); // answers a caller that is no more
    const auto again = start_relay();
    EXPECT_EQ(call("relay", "tally").code(), make_error_code(msg::success));
}

} // namespace
} // namespace tarn::test
