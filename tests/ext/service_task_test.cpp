/// Services whose methods are tasks.
#include "tarn/ext/await.h"
#include "tarn/ext/service.h"

#include "client/client_fixture.h"
#include "tarn/error.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::test {
namespace {

using error::msg;
using ext::result;
using ext::service;
using ext::task;
using std::chrono::seconds;

class ServiceTask : public client_on_bus_test {
protected:
    void publish(service& served) {
        outcome published;
        served.on_published(published.handler()).publish();
        connect();
        run_until([&] { return published.reported(); });
        ASSERT_FALSE(published.code());
    }

    static void call(const std::string& method, const blob::table& args, call_outcome& answer) {
        bus().invoke("served", method, args, answer.handler(), seconds(0));
    }
};

TEST_F(ServiceTask, ATaskAnswersWithWhatItYields) {
    start_service();
    service served(bus(), "served");
    // The captures of the lambda live as long as its tasks.
    served.method(
        "relay", {"msg"}, [path = std::string("demo")](std::string text) -> task<std::string> {
            const blob::table args{{"msg", text}};
            const auto echo = co_await ext::call(client::get_instance({}), path, "echo", args);
            co_return path + ": " + echo->at<std::string>("msg");
        });
    publish(served);
    call_outcome answer;
    call("relay", {{"msg", "hi"}}, answer);
    run_until([&] { return answer.reported(); });
    ASSERT_FALSE(answer.code());
    EXPECT_EQ(answer.reply().find("result")->second.get<std::string>(), "demo: hi");
}

TEST_F(ServiceTask, WhatATaskThrowsIsAnswered) {
    std::vector<std::string> thrown;
    service served(bus(), "served");
    served.method("value", []() -> task<result<int>> { co_return msg::timeout; })
        .method("refused",
                []() -> task<> {
                    co_await ext::sleep(client::get_instance({}), seconds(0));
                    throw std::system_error(msg::permission_denied);
                })
        .method("broken",
                []() -> task<int> {
                    co_await ext::sleep(client::get_instance({}), seconds(0));
                    throw std::runtime_error("broken");
                })
        .on_exception([&](const std::string& method, const std::exception_ptr&) {
            thrown.push_back(method);
        });
    publish(served);
    const auto status_of = [](const std::string& method) {
        call_outcome answer;
        call(method, {}, answer);
        run_until([&] {
            loop()->advance(seconds(0));
            return answer.reported();
        });
        return answer.code();
    };
    EXPECT_EQ(status_of("value"), msg::timeout);
    EXPECT_EQ(status_of("refused"), msg::permission_denied);
    EXPECT_EQ(status_of("broken"), msg::unknown_error);
    EXPECT_EQ(thrown, std::vector<std::string>{"broken"});
}

TEST_F(ServiceTask, TasksThatStillServeCallsEndWithTheService) {
    std::vector<std::string> notes;
    auto served = std::make_unique<service>(bus(), "served");
    served->method("slow", [&notes]() -> task<> {
        const auto at_end =
            std::shared_ptr<void>(nullptr, [&notes](void*) { notes.push_back("gone"); });
        notes.push_back("begun");
        co_await ext::sleep(client::get_instance({}), seconds(1));
        notes.push_back("never");
    });
    publish(*served);
    call_outcome one;
    call_outcome other;
    call("slow", {}, one);
    call("slow", {}, other);
    run_until([&] { return notes.size() == 2; });
    served.reset();
    EXPECT_EQ(notes, (std::vector<std::string>{"begun", "begun", "gone", "gone"}));
    run_until([&] { return one.reported() && other.reported(); });
    EXPECT_EQ(one.code(), msg::unknown_error);
    loop()->advance(seconds(2));
    EXPECT_EQ(notes.size(), 4U);
}

} // namespace
} // namespace tarn::test
