/// Calls whose arguments and results are C++ types.
#include "tarn/ext/call.h"

#include "client/client_fixture.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <optional>

namespace tarn::test {

struct greeting {
    std::string msg;
    int n = 0;
    std::optional<bool> loud;
};
TARN_FIELDS(greeting, msg, n, loud)

struct anything {
    std::optional<int> n;
};
TARN_FIELDS(anything, n)

namespace {

using error::msg;
using ext::call;
using ext::reply;
using ext::result;
using namespace std::chrono_literals;

class Call : public client_on_bus_test {
protected:
    void SetUp() override {
        start_service();
        connect();
    }
};

/// Keeps the result that its handler gets.
template <class T>
class kept {
public:
    auto handler() {
        return [this](result<T> outcome) {
            ++count_;
            outcome_.emplace(std::move(outcome));
        };
    }
    const result<T>& get() {
        EXPECT_TRUE(client_loop_->run_until([this] { return outcome_.has_value(); }, limit));
        EXPECT_EQ(count_, 1);
        return *outcome_;
    }
    bool reported() const { return outcome_.has_value(); }
    explicit kept(std::shared_ptr<test_loop> loop)
        : client_loop_(std::move(loop)) {}

private:
    std::shared_ptr<test_loop> client_loop_;
    std::optional<result<T>> outcome_;
    int count_ = 0;
};

TEST_F(Call, GivesTheReplyToReadFrom) {
    kept<reply> echo(loop());
    const auto link =
        call(bus(), "demo", "echo", {{"msg", "hello"}, {"n", 42}}, 5s, echo.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(echo.reported()) << "never inside the call";
    EXPECT_EQ(echo.get()->at<std::string>("msg"), "hello");
    EXPECT_EQ(echo.get()->at<int>("n"), 42);
    EXPECT_FALSE(link.active());
}

TEST_F(Call, TakesAndGivesStructures) {
    kept<greeting> echo(loop());
    call(bus(), "demo", "echo", greeting{"hi", -7, true}, 1500ms, echo.handler());
    EXPECT_EQ(echo.get()->msg, "hi");
    EXPECT_EQ(echo.get()->n, -7);
    EXPECT_EQ(echo.get()->loud, true) << "a flag returns as a byte";
}

TEST_F(Call, TakesWhateverIsWrittenAsATable) {
    kept<std::map<std::string, int>> echo(loop());
    call(bus(), "demo", "echo", std::map<std::string, int>{{"a", 1}}, 5s, echo.handler());
    EXPECT_EQ(echo.get()->at("a"), 1);
    kept<blob::table> again(loop());
    call(bus(), "demo", "echo", reply({{"b", 2}}), 5s, again.handler());
    EXPECT_EQ(again.get()->count("b"), 1U);
    EXPECT_THROW(call(bus(), "demo", "echo", std::vector<int>{1}, 5s, again.handler()),
                 std::invalid_argument);
}

TEST_F(Call, WithoutArgumentsGivesTheFirstOfSeveralReplies) {
    kept<reply> twice(loop());
    call(bus(), "demo", "twice", 5s, twice.handler());
    EXPECT_EQ(twice.get()->at<int>("i"), 1);
}

TEST_F(Call, AMismatchIsAParseErrorThatNamesTheField) {
    kept<greeting> echo(loop());
    call(bus(), "demo", "echo", {{"msg", "hi"}, {"n", "many"}}, 5s, echo.handler());
    EXPECT_EQ(echo.get().error(), msg::parse_error);
    EXPECT_EQ(echo.get().message(), "Parsing message data failed: n: expected a signed 32-bit "
                                    "integer, found a string");
}

TEST_F(Call, NoReplyIsAnEmptyTable) {
    kept<reply> none(loop());
    call(bus(), "demo", "quit", 5s, none.handler());
    EXPECT_TRUE(none.get()->empty());
}

TEST_F(Call, NoReplyIsAParseErrorWhereAFieldIsRequired) {
    kept<greeting> none(loop());
    call(bus(), "demo", "quit", 5s, none.handler());
    EXPECT_EQ(none.get().error(), msg::parse_error);
    EXPECT_EQ(none.get().detail(), "msg: expected a string, found no such field");
}

TEST_F(Call, NoReplyIsAStructureWhereEveryFieldIsOptional) {
    kept<anything> none(loop());
    call(bus(), "demo", "quit", 5s, none.handler());
    EXPECT_EQ(none.get()->n, std::nullopt);
}

TEST_F(Call, FailuresKeepTheirCodes) {
    kept<reply> denied(loop());
    call(bus(), "demo", "deny", 5s, denied.handler());
    EXPECT_EQ(denied.get().error(), msg::permission_denied);
    kept<void> missing(loop());
    call(bus(), "nobody", "x", {}, 5s, missing.handler());
    EXPECT_EQ(missing.get().error(), msg::not_found);
    EXPECT_EQ(missing.get().message(), "Not found");
    kept<void> good(loop());
    call(bus(), "demo", "echo", 5s, good.handler());
    EXPECT_TRUE(good.get());
}

TEST_F(Call, TheTypeIsGivenWhereTheHandlerDoesNotSayIt) {
    std::optional<int> n;
    call<greeting>(bus(), "demo", "echo", {{"msg", "hi"}, {"n", 3}}, 5s,
                   [&n](const auto& outcome) { n = outcome->n; });
    run_until([&] { return n.has_value(); });
    EXPECT_EQ(n, 3);
    n.reset();
    call(bus(), "demo", "echo", {{"n", 4}}, 5s,
         [&n](const auto& outcome) { n = outcome->template at<int>("n"); });
    run_until([&] { return n.has_value(); });
    EXPECT_EQ(n, 4);
}

TEST_F(Call, TheHandlerMayBeAStdFunctionOrMovableOnlyOrTakeAReference) {
    int called = 0;
    const std::function<void(const result<reply>&)> function = [&](const result<reply>&) {
        ++called;
    };
    call(bus(), "demo", "echo", 5s, function);
    call(bus(), "demo", "echo", 5s,
         [&called, only = std::make_unique<int>(1)](const result<reply>& outcome) {
             called += outcome ? *only : 0;
         });
    run_until([&] { return called == 2; });
}

TEST_F(Call, ReleasingTheLinkEndsTheCallAndDestroysTheHandler) {
    bool called = false;
    const auto owned = std::make_shared<int>();
    auto link =
        call(bus(), "demo", "late", 0s, [&called, owned](const result<reply>&) { called = true; });
    EXPECT_GT(owned.use_count(), 1);
    link.release();
    EXPECT_FALSE(link.active());
    kept<reply> behind(loop());
    call(bus(), "demo", "late", {{"ms", 300}}, 0s, behind.handler());
    EXPECT_TRUE(behind.get());
    EXPECT_FALSE(called);
    EXPECT_EQ(owned.use_count(), 1);
}

TEST_F(Call, ALimitIsRoundedUpToWholeSeconds) {
    kept<reply> late(loop());
    call(bus(), "demo", "late", {{"ms", 60000}}, 1ms, late.handler());
    EXPECT_EQ(loop()->armed_timers(), std::vector<std::chrono::seconds>{1s});
    loop()->advance(1s);
    EXPECT_EQ(late.get().error(), msg::timeout);
    kept<reply> never(loop());
    const utils::scoped_link link =
        call(bus(), "demo", "late", {{"ms", 60000}}, 0ms, never.handler());
    EXPECT_TRUE(loop()->armed_timers().empty()) << "zero means no limit";
}

TEST(CallLimit, RoundsUpWithoutOverflow) {
    using ext::detail::whole_seconds;
    using std::chrono::duration;
    EXPECT_EQ(whole_seconds(0ns), 0s);
    EXPECT_EQ(whole_seconds(1ns), 1s);
    EXPECT_EQ(whole_seconds(1000ms), 1s);
    EXPECT_EQ(whole_seconds(1001ms), 2s);
    EXPECT_EQ(whole_seconds(1min), 60s);
    EXPECT_EQ(whole_seconds(-1ns), -1s);
    EXPECT_EQ(whole_seconds(std::chrono::hours::min()), -1s);
    EXPECT_EQ(whole_seconds(duration<double>(0.5)), 1s);
    EXPECT_EQ(whole_seconds(duration<double>(2.0)), 2s);
    EXPECT_EQ(whole_seconds(duration<int, std::ratio<1, 3>>(4)), 2s);
    EXPECT_EQ(whole_seconds(std::chrono::nanoseconds::max()), 9223372037s);
    EXPECT_EQ(whole_seconds(std::chrono::hours(1000000)), 3600000000s);
    EXPECT_EQ(whole_seconds(std::chrono::milliseconds::max()), std::chrono::seconds::max());
    EXPECT_EQ(whole_seconds(std::chrono::duration<long long, std::ratio<3600>>::max()),
              std::chrono::seconds::max());
    EXPECT_EQ(whole_seconds(duration<double>(std::numeric_limits<double>::infinity())),
              std::chrono::seconds::max());
    EXPECT_EQ(whole_seconds(duration<double>(std::numeric_limits<double>::quiet_NaN())),
              std::chrono::seconds::max());
}

} // namespace
} // namespace tarn::test
