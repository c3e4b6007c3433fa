/// Services: how arguments get to functions and what becomes of what they return, throw or leave
/// unanswered; when the object is on the bus.
#include "tarn/ext/service.h"

#include "client/client_fixture.h"
#include "support/expect_throw.h"
#include "tarn/error.h"

#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace tarn::test {

struct point {
    int x = 0;
    std::optional<long long> y;
};
TARN_FIELDS(point, x, y)

struct options {
    std::optional<int> level;
    std::optional<std::string> name;
};
TARN_FIELDS(options, level, name)

namespace {

using error::msg;
using ext::responder;
using ext::result;
using ext::service;
using std::chrono::seconds;

/// A service and its caller on one client: the calls go by the bus.
class Service : public client_on_bus_test {
protected:
    /// Publishes it and waits until it is there.
    void publish(service& served) {
        outcome published;
        served.on_published(published.handler());
        served.publish();
        if (!bus().is_active()) {
            connect();
        }
        run_until([&] { return published.reported(); });
        ASSERT_FALSE(published.code()) << published.code().message();
    }

    static call_outcome call(const std::string& method, const blob::table& args) {
        call_outcome answer;
        bus().invoke("served", method, args, answer.handler(), seconds(20));
        run_until([&] { return answer.reported(); });
        return answer;
    }

    static std::error_code status_of(const std::string& method, const blob::table& args) {
        return call(method, args).code();
    }

    /// The field "result" of an answer that succeeded.
    template <class T>
    static T result_of(const std::string& method, const blob::table& args) {
        const call_outcome answer = call(method, args);
        EXPECT_FALSE(answer.code()) << answer.code().message();
        EXPECT_EQ(answer.replies().size(), 1U);
        EXPECT_EQ(answer.reply().size(), 1U);
        return ext::from_attr<T>(answer.reply().find("result")->second);
    }
};

TEST_F(Service, TheFieldsAreTheParametersAndTheValueIsTheFieldResult) {
    service served(bus(), "served");
    served.method("join", {"text", "n", "loud"}, [](const std::string& text, int n, bool loud) {
        return text + std::to_string(n) + (loud ? "!" : ".");
    });
    publish(served);
    EXPECT_EQ(result_of<std::string>("join", {{"n", -3}, {"loud", true}, {"text", "x"}}), "x-3!");
    EXPECT_EQ(
        result_of<std::string>("join", {{"n", 3}, {"loud", false}, {"text", ""}, {"more", 1}}),
        "3.");
}

TEST_F(Service, NumbersArriveInWhicheverWidthTheyWereSent) {
    service served(bus(), "served");
    served.method("sum", {"a", "b", "c", "d"}, [](long long a, unsigned int b, short c, double d) {
        return static_cast<double>(a + b + c) + d;
    });
    publish(served);
    const auto sum = [](const blob::table& args) {
        return result_of<double>("sum", args);
    };
    EXPECT_EQ(sum({{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}}), 10.0);
    EXPECT_EQ(sum({{"a", 1LL << 40}, {"b", 3000000000LL}, {"c", 3LL}, {"d", 0.5}}),
              1099511627776.0 + 3000000000.0 + 3.5);
    EXPECT_EQ(status_of("sum", {{"a", 1}, {"b", 2}, {"c", 70000}, {"d", 4}}),
              msg::invalid_argument);
    EXPECT_EQ(status_of("sum", {{"a", 1}, {"b", 1LL << 32}, {"c", 3}, {"d", 4}}),
              msg::invalid_argument);
}

TEST_F(Service, AFieldThatIsAbsentOrOfAnotherTypeIsAnInvalidArgument) {
    int called = 0;
    service served(bus(), "served");
    served.method("add", {"a", "b"}, [&called](int a, int b) {
        ++called;
        return a + b;
    });
    publish(served);
    EXPECT_EQ(status_of("add", {{"a", 1}}), msg::invalid_argument);
    EXPECT_EQ(status_of("add", {{"a", 1}, {"b", "two"}}), msg::invalid_argument);
    EXPECT_EQ(status_of("add", {{"a", 1}, {"b", blob::list()}}), msg::invalid_argument);
    EXPECT_EQ(status_of("add", {{"c", 1}}), msg::invalid_argument);
    EXPECT_EQ(status_of("add", {}), msg::unknown_error) << "does not pass the policy";
    EXPECT_EQ(called, 0);
    EXPECT_EQ(result_of<int>("add", {{"a", 1}, {"b", 2}}), 3);
}

TEST_F(Service, AFieldThatMayBeAbsentMustStillBeOfItsType) {
    service served(bus(), "served");
    served
        .method(
            "mixed", {"a", "b"},
            [](int a, std::optional<std::string> b) { return std::to_string(a) + b.value_or("-"); })
        .method("free", {"b"}, [](std::optional<int> b) { return b.value_or(-1); });
    publish(served);
    EXPECT_EQ(result_of<std::string>("mixed", {{"a", 1}}), "1-");
    EXPECT_EQ(result_of<std::string>("mixed", {{"a", 1}, {"b", "x"}}), "1x");
    EXPECT_EQ(status_of("mixed", {{"a", 1}, {"b", 2}}), msg::invalid_argument);
    EXPECT_EQ(result_of<int>("free", {}), -1) << "a call without any arguments";
    EXPECT_EQ(result_of<int>("free", {{"b", 5}}), 5);
    EXPECT_EQ(status_of("free", {{"b", "x"}}), msg::invalid_argument);
}

TEST_F(Service, AStructureIsReadFromAllArgumentsAndIsAnAnswerItself) {
    service served(bus(), "served");
    served.method("mirror",
                  [](const point& p) {
                      return point{-p.x, p.y};
                  })
        .method("level", [](const options& o) { return o.level.value_or(0); });
    publish(served);
    const auto both = call("mirror", {{"x", 2}, {"y", 3}, {"z", 4}});
    ASSERT_FALSE(both.code());
    EXPECT_EQ(ext::from_attr<int>(both.reply().find("x")->second), -2);
    EXPECT_EQ(ext::from_attr<int>(both.reply().find("y")->second), 3);
    const auto one = call("mirror", {{"x", 2}});
    ASSERT_FALSE(one.code());
    EXPECT_EQ(one.reply().size(), 1U);
    EXPECT_EQ(status_of("mirror", {{"y", 3}}), msg::invalid_argument);
    EXPECT_EQ(result_of<int>("level", {}), 0);
    EXPECT_EQ(result_of<int>("level", {{"level", 4}}), 4);
}

TEST_F(Service, ATableAndAReplyTakeTheArgumentsAsTheyCome) {
    service served(bus(), "served");
    served.method("table", [](blob::table all) { return all; })
        .method("reply", [](const ext::reply& all) { return all.has("a"); });
    publish(served);
    EXPECT_EQ(call("table", {{"a", 1}, {"b", "x"}}).reply().size(), 2U);
    EXPECT_TRUE(call("table", {}).replies().empty());
    EXPECT_TRUE(result_of<bool>("reply", {{"a", 1}}));
}

TEST_F(Service, AnswersWithoutAValue) {
    service served(bus(), "served");
    served.method("nothing", [] {})
        .method("code", {"ok"}, [](bool ok) { return ok ? std::error_code() : msg::timeout; })
        .method("maybe", {"there"},
                [](bool there) { return there ? std::optional<int>(5) : std::nullopt; })
        .method("either", {"ok"},
                [](bool ok) { return ok ? result<int>(7) : result<int>(msg::not_supported); });
    publish(served);
    EXPECT_FALSE(status_of("nothing", {}));
    EXPECT_TRUE(call("nothing", {{"any", 1}}).replies().empty());
    EXPECT_FALSE(status_of("code", {{"ok", true}}));
    EXPECT_EQ(status_of("code", {{"ok", false}}), msg::timeout);
    EXPECT_EQ(result_of<int>("maybe", {{"there", true}}), 5);
    const auto absent = call("maybe", {{"there", false}});
    EXPECT_FALSE(absent.code());
    EXPECT_TRUE(absent.replies().empty());
    EXPECT_EQ(result_of<int>("either", {{"ok", true}}), 7);
    EXPECT_EQ(status_of("either", {{"ok", false}}), msg::not_supported);
}

TEST_F(Service, WhatAMethodThrowsIsAnsweredAndDoesNotLeaveTheLoop) {
    std::vector<std::string> thrown;
    service served(bus(), "served");
    served.method("broken", []() -> int { throw std::runtime_error("broken"); })
        .method("odd", []() -> int { throw 5; })
        .method("misread", [] { return ext::reply().at<int>("nothing"); })
        .method("refused", []() -> int { throw std::system_error(msg::permission_denied); })
        .method("errno", []() -> int { throw std::system_error(ENOENT, std::generic_category()); })
        .on_exception([&](const std::string& method, const std::exception_ptr& what) {
            EXPECT_TRUE(what);
            thrown.push_back(method);
        });
    publish(served);
    EXPECT_EQ(status_of("broken", {}), msg::unknown_error);
    EXPECT_EQ(status_of("odd", {}), msg::unknown_error);
    EXPECT_EQ(status_of("misread", {}), msg::unknown_error) << "not the caller's mistake";
    EXPECT_EQ(status_of("refused", {}), msg::permission_denied);
    EXPECT_EQ(status_of("errno", {}), msg::unknown_error);
    EXPECT_EQ(thrown, (std::vector<std::string>{"broken", "odd", "misread", "errno"}));
}

TEST_F(Service, AReplyThatIsTooLongIsNotTakenForAnEmptyOne) {
    service served(bus(), "served");
    served.method("long", [] { return std::string(2 * 1024 * 1024, 'x'); });
    publish(served);
    EXPECT_EQ(status_of("long", {}), msg::unknown_error);
}

TEST_F(Service, AResponderAnswersLaterFromAnotherThread) {
    std::thread worker;
    service served(bus(), "served");
    served.method("later", {"a"}, [&worker](int a, const responder<std::string>& caller) {
        worker = std::thread([a, caller] { caller.answer(std::to_string(a)); });
    });
    publish(served);
    EXPECT_EQ(result_of<std::string>("later", {{"a", 9}}), "9");
    worker.join();
}

TEST_F(Service, TheFirstAnswerOfAResponderCounts) {
    service served(bus(), "served");
    served
        .method("first",
                [](const responder<int>& caller) {
                    EXPECT_FALSE(caller.expired());
                    caller.answer(1);
                    EXPECT_TRUE(caller.expired());
                    caller.answer(2);
                    caller.answer(msg::not_found);
                })
        .method("none", [](const responder<>& caller) { caller.answer(); })
        .method("failed", [](const responder<>& caller) { caller.answer(msg::timeout); })
        .method("text", [](const responder<std::string>& caller) { caller.answer("text"); });
    publish(served);
    EXPECT_EQ(result_of<int>("first", {}), 1);
    EXPECT_FALSE(status_of("none", {}));
    EXPECT_EQ(status_of("failed", {}), msg::timeout);
    EXPECT_EQ(result_of<std::string>("text", {}), "text");
}

TEST_F(Service, AResponderThatIsDroppedAnswersUnknownError) {
    service served(bus(), "served");
    served.method("dropped", [](const responder<>&) {})
        .method("thrown", [](const responder<>& caller) {
            const responder<> kept = caller;
            throw std::runtime_error("broken");
        });
    publish(served);
    EXPECT_EQ(status_of("dropped", {}), msg::unknown_error);
    EXPECT_EQ(status_of("thrown", {}), msg::unknown_error);
}

TEST_F(Service, ItIsPublishedAgainOnEveryConnection) {
    outcome published;
    service served(bus(), "served");
    served.method("ping", [] {}).on_published(published.handler()).publish();
    loop()->drain();
    EXPECT_FALSE(published.reported()) << "there is no connection yet";
    const utils::scoped_link reconnection =
        bus().auto_connect([](long long) { return seconds(1); });
    run_until([&] { return published.count() == 1; });
    EXPECT_FALSE(status_of("ping", {}));
    daemon_.restart();
    run_until_state(client::state::disconnected);
    loop()->advance(seconds(1));
    run_until([&] { return published.count() == 2; });
    EXPECT_FALSE(published.code());
    EXPECT_FALSE(status_of("ping", {}));
}

TEST_F(Service, ItIsPublishedAgainAfterACancellation) {
    outcome published;
    service served(bus(), "served");
    served.method("ping", [] {}).on_published(published.handler()).publish();
    connect();
    run_until([&] { return published.count() == 1; });
    bus().cancel();
    connect();
    run_until([&] { return published.count() == 2; });
    EXPECT_FALSE(status_of("ping", {}));
}

TEST_F(Service, ItIsWithdrawnWithItsObjectAndMayBePublishedAnew) {
    connect();
    {
        service served(bus(), "served");
        served.method("ping", [] {});
        publish(served);
        EXPECT_FALSE(status_of("ping", {}));
    }
    EXPECT_EQ(status_of("ping", {}), msg::not_found);
    {
        service never_there(bus(), "served");
        never_there.publish();
    }
    service anew(bus(), "served");
    anew.method("ping", [] {});
    publish(anew);
    EXPECT_FALSE(status_of("ping", {}));
}

TEST_F(Service, AMovedServiceIsStillServed) {
    std::optional<service> kept;
    {
        service made(bus(), "served");
        made.method("ping", [] {});
        publish(made);
        kept.emplace(std::move(made));
    }
    EXPECT_FALSE(status_of("ping", {}));
    kept.reset();
    EXPECT_EQ(status_of("ping", {}), msg::not_found);
}

TEST_F(Service, ANameThatIsTakenIsReportedAndNotWithdrawn) {
    connect();
    service first(bus(), "served");
    first.method("ping", [] {});
    publish(first);
    {
        outcome refused;
        service second(bus(), "served");
        second.on_published(refused.handler()).publish();
        run_until([&] { return refused.reported(); });
        EXPECT_EQ(refused.code(), msg::invalid_argument);
    }
    EXPECT_FALSE(status_of("ping", {})) << "the first one is still there";
}

TEST_F(Service, NothingIsChangedAfterPublishing) {
    service served(bus(), "served");
    served.publish();
    const char* const published = "tarn::ext::service: served is published already";
    expect_throw_msg<std::logic_error>([&] { served.method("late", [] {}); }, published);
    expect_throw_msg<std::logic_error>([&] { served.on_published({}); }, published);
    expect_throw_msg<std::logic_error>([&] { served.on_exception({}); }, published);
    expect_throw_msg<std::logic_error>([&] { served.publish(); }, published);
}

} // namespace
} // namespace tarn::test
