/// Services whose methods are tasks.
#include "tarn/ext/await.h"
#include "tarn/ext/service.h"

#include "client/client_fixture.h"
#include "support/expect_throw.h"
#include "tarn/error.h"

#include <coroutine>
#include <cstddef>
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

TEST_F(ServiceTask, OnExceptionIsCalledOnceAlthoughItThrowsItself) {
    std::vector<std::string> thrown;
    service served(bus(), "served");
    served
        .method("broken",
                []() -> task<> {
                    throw std::runtime_error("broken");
                    co_return;
                })
        .on_exception([&](const std::string& method, const std::exception_ptr&) {
            thrown.push_back(method);
            throw std::logic_error("told");
        });
    publish(served);
    call_outcome answer;
    call("broken", {}, answer);
    const auto answered = [&] {
        return answer.reported();
    };
    expect_throw_msg<std::logic_error>([&] { run_until(answered); }, "told");
    run_until(answered);
    EXPECT_EQ(answer.code(), msg::unknown_error);
    EXPECT_EQ(thrown, std::vector<std::string>{"broken"});
}

/// Waits until it is resumed, which it never is.
class parked {
public:
    explicit parked(std::vector<std::shared_ptr<void>>& place)
        : place_(place) {}
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> here) const {
        place_.push_back(ext::detail::run_of(here));
    }
    void await_resume() const noexcept {}

private:
    std::vector<std::shared_ptr<void>>& place_;
};

TEST_F(ServiceTask, TasksEndWithTheServiceAlsoAfterOthersWereDropped) {
    constexpr std::size_t tasks = 50;
    std::vector<std::shared_ptr<void>> parked_here; // owns the tasks, as handlers do
    std::size_t gone = 0;
    auto served = std::make_unique<service>(bus(), "served");
    served->method("wait", [&]() -> task<> {
        const auto at_end = std::shared_ptr<void>(nullptr, [&gone](void*) { ++gone; });
        co_await parked(parked_here);
    });
    publish(*served);
    const auto call_all = [&] {
        for (std::size_t n = 0; n < tasks; ++n) {
            bus().invoke("served", "wait", {}, {}, seconds(0));
        }
        run_until([&] { return parked_here.size() == tasks; });
    };
    call_all();
    parked_here.clear(); // a handler that is dropped without being called
    EXPECT_EQ(gone, tasks);
    call_all(); // what they use may stand where that of the others stood
    served.reset();
    EXPECT_EQ(gone, 2 * tasks);
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
