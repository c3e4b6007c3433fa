/// Notifications whose data, and whose answers, are C++ types.
#include "tarn/ext/subscribe.h"

#include "fake_fixture.h"
#include "tarn/ext/print.h"
#include "tarn/ext/reply.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace tarn::test {
namespace {

using error::msg;
using ext::responder;
using ext::result;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::served_call;

class Subscribe : public fake_fixture {
protected:
    void SetUp() override {
        rest.add_object("porter");
        connect();
    }

    /// What becomes of a notification that waits for an answer.
    std::shared_ptr<const served_call> ask(const blob::table& data = {{"name", "front"}}) {
        const auto served = rest.ask_from("porter", "may-open", data);
        EXPECT_EQ(served.size(), 1U);
        loop->drain();
        return served.at(0);
    }
};

TEST_F(Subscribe, TheDataAreTheStructureOfTheHandler) {
    const auto link = ext::subscribe(bus, "porter", [&](const std::string& method, door data) {
        seen.push_back(method + ' ' + data.name);
    });
    rest.notify_from("porter", "opened", {{"name", "front"}});
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("opened front"));
}

TEST_F(Subscribe, AHandlerThatReturnsNothingHasSuccessAnsweredBeforeIt) {
    const auto link = ext::subscribe(
        bus, "porter", [&](const std::string&, const auto&) { seen.emplace_back("called"); });
    const auto served = rest.ask_from("porter", "may-open");
    EXPECT_EQ(served.at(0)->status, make_error_code(msg::success));
    EXPECT_THAT(seen, IsEmpty());
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("called"));
}

TEST_F(Subscribe, WhatTheHandlerReturnsIsTheAnswer) {
    {
        const auto link = ext::subscribe(bus, "porter", [](const std::string&, const door& data) {
            return data.name == "front";
        });
        EXPECT_TRUE(ask()->replies.front().find("result")->second.get<unsigned char>());
    }
    {
        const auto link = ext::subscribe(bus, "porter", [](const std::string&, const door& data) {
            return door{data.name + "!", 1};
        });
        const auto served = ask();
        EXPECT_EQ(served->replies.front().find("name")->second.get<std::string>(), "front!");
        EXPECT_EQ(served->status, make_error_code(msg::success));
    }
    {
        const auto link = ext::subscribe(bus, "porter", [](const std::string&, const door&) {
            return make_error_code(msg::permission_denied);
        });
        EXPECT_EQ(ask()->status, make_error_code(msg::permission_denied));
    }
    {
        const auto link =
            ext::subscribe(bus, "porter", [](const std::string&, const door&) -> result<int> {
                return msg::not_supported;
            });
        EXPECT_EQ(ask()->status, make_error_code(msg::not_supported));
    }
}

TEST_F(Subscribe, AResponderAnswersLater) {
    std::optional<responder<int>> kept;
    const auto link =
        ext::subscribe(bus, "porter", [&](const std::string&, const door&, responder<int> answer) {
            kept.emplace(answer);
        });
    const auto served = ask();
    EXPECT_FALSE(served->status);
    kept->answer(5);
    loop->drain();
    EXPECT_EQ(served->replies.front().find("result")->second.get<int>(), 5);
    EXPECT_EQ(served->status, make_error_code(msg::success));
    const auto dropped = ask();
    kept.reset();
    EXPECT_EQ(dropped->status, make_error_code(msg::unknown_error));
}

TEST_F(Subscribe, AMismatchIsAnInvalidArgumentAndGoesToItsHandler) {
    ext::subscribe_options how;
    how.on_mismatch = [&](const std::string& method, const ext::mismatch& wrong) {
        seen.push_back(method + ": " + wrong.what());
    };
    const auto link = ext::subscribe(
        bus, "porter",
        [&](const std::string&, const door&) {
            seen.emplace_back("called");
            return 1;
        },
        {}, how);
    EXPECT_EQ(ask({})->status, make_error_code(msg::invalid_argument));
    EXPECT_THAT(seen, ElementsAre("may-open: name: expected a string, found no such field"));
}

TEST_F(Subscribe, AStatusThatTheHandlerThrowsIsTheAnswer) {
    const auto link = ext::subscribe(bus, "porter", [](const std::string&, const door&) -> int {
        throw std::system_error(msg::not_found);
    });
    EXPECT_EQ(ask()->status, make_error_code(msg::not_found));
}

TEST_F(Subscribe, AnyOtherExceptionIsAnUnknownErrorAndPassesThroughTheLoop) {
    const auto link = ext::subscribe(bus, "porter", [](const std::string&, const door&) -> int {
        throw std::runtime_error("handler");
    });
    const auto served = rest.ask_from("porter", "may-open", {{"name", "front"}});
    EXPECT_THROW(loop->drain(), std::runtime_error);
    EXPECT_EQ(served.at(0)->status, make_error_code(msg::unknown_error));
}

TEST_F(Subscribe, ChangesAreReportedInOrderWithTheNotifications) {
    {
        const auto link = ext::subscribe(
            bus, "porter",
            [&](const std::string& method, const ext::reply&) { seen.push_back(method); },
            [&](bus::subscription what, const std::error_code& reason) {
                seen.push_back(to_string(what) + ": " + reason.message());
            });
        rest.notify_from("porter", "one");
        lose();
        connect();
        rest.notify_from("porter", "two");
        rest.remove_object("porter");
        loop->drain();
    }
    rest.add_object("porter");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("subscribed: Success", "one", "lost: Connection failed",
                                  "subscribed: Success", "two", "lost: Not found"));
}

TEST_F(Subscribe, TheOptionsOfTheBusArePassedOn) {
    ext::subscribe_options how;
    how.most_undelivered = 1;
    how.on_dropped = [&](std::uint64_t count) {
        seen.push_back("dropped " + std::to_string(count));
    };
    how.on_registered = [&](const std::error_code& code) {
        seen.push_back(code.message());
    };
    const auto link = ext::subscribe(
        bus, "porter",
        [&, owned = std::make_unique<int>(1)](const std::string& method, const ext::reply&) {
            seen.push_back(method);
        },
        {}, how);
    loop->drain();
    rest.notify_from("porter", "one");
    rest.notify_from("porter", "two");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("Success", "dropped 1", "two"));
}

} // namespace
} // namespace tarn::test
