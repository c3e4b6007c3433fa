/// A process that answers and is gone: its caller gets the answer all the same. The daemon drops
/// what it finds in a client's socket together with the client's end.
#include "integration/processes.h"

#include "robustness/rounds.h"
#include "support/brief_end.h"

namespace tarn::test {
namespace {

class LastAnswer : public processes_test {
protected:
    void SetUp() override {
        end_briefly();
        connect();
    }

    void reaches_the_caller(const std::string& way) {
        const int times = rounds(many_starts(200));
        for (int round = 0; round < times; ++round) {
            child_process service({TARN_TEST_LAST_ANSWER, way});
            service.wait_for_line("last_answer: ready");
            const call_outcome answered = call("last", "serve");
            ASSERT_FALSE(answered.code()) << answered.code().message() << " in round " << round;
            ASSERT_EQ(answered.replies().size(), 2U) << "in round " << round;
            EXPECT_EQ(service.read_rest(), "");
            ASSERT_EQ(service.wait(), 0) << "in round " << round;
        }
    }
};

TEST_F(LastAnswer, OfAHandlerThatExitsReachesItsCaller) {
    reaches_the_caller("exit");
}

TEST_F(LastAnswer, OfAHandlerThatExitsWithoutRespondingBringsItsRepliesToTheCaller) {
    const int times = rounds(many_starts(50));
    for (int round = 0; round < times; ++round) {
        child_process service({TARN_TEST_LAST_ANSWER, "drop"});
        service.wait_for_line("last_answer: ready");
        std::size_t replies = 0;
        const utils::scoped_link call = bus().invoke_each(
            "last", "serve", {}, [&](const blob::attr&) { ++replies; }, {},
            std::chrono::seconds(0));
        ASSERT_NO_FATAL_FAILURE(run_until([&] { return replies == 2; })) << "in round " << round;
        ASSERT_EQ(service.wait(), 0) << "in round " << round;
    }
}

TEST_F(LastAnswer, OfAThreadWhoseMainReturnsReachesItsCaller) {
    reaches_the_caller("main");
}

TEST_F(LastAnswer, BeforeADisconnectionReachesItsCaller) {
    reaches_the_caller("disconnect");
}

TEST_F(LastAnswer, BeforeACancellationReachesItsCaller) {
    reaches_the_caller("cancel");
}

} // namespace
} // namespace tarn::test
