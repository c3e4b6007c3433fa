/// A process that is not root, under access rules: what is refused and what is allowed, and the
/// code with which it hears of it.
#include "integration/processes.h"

#include <fstream>
#include <pwd.h>

namespace tarn::test {
namespace {

using error::msg;

/// "nobody" on every system that has it.
constexpr uid_t user = 65534;

class Access : public client_test {
protected:
    /// The rules for `user`, whom the daemon knows by the name.
    static std::string rules() {
        const passwd* known = ::getpwuid(user);
        if (known == nullptr) {
            throw std::runtime_error("this system has no user of the number " +
                                     std::to_string(user));
        }
        return std::string(R"({"user": ")") + known->pw_name + R"(",
            "access": {"access.open": {"methods": ["ping"]}},
            "publish": ["access.mine"],
            "listen": ["allowed."], "send": ["allowed.*"],
            "subscribe": ["access.open"]})";
    }

    /// Root, whom no rules bind, publishes what the user is to meet.
    void SetUp() override {
        connect();
        publish("access.open", {{"ping", {pong(), {}}}, {"secret", {pong(), {}}}});
        publish("access.hidden", {{"ping", {pong(), {}}}});
        publish("access.bare", {});
    }

    static void connect() {
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        ASSERT_FALSE(connected.code()) << connected.code().message();
    }

    static void publish(const std::string& name, const client::method_map& methods) {
        outcome added;
        bus().add_object(name, methods, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code()) << added.code().message();
    }

    client::method_handler pong() {
        return [this](const std::shared_ptr<client::exchange_ctx>& call) {
            ++served_;
            call->send({{"text", "pong"}}, {});
        };
    }

    void start(uid_t as, const std::vector<std::string>& actions) {
        std::vector<std::string> words{TARN_TEST_USER_CLIENT, std::to_string(as)};
        words.insert(words.end(), actions.begin(), actions.end());
        process_ = std::make_unique<child_process>(words);
    }

    /// What the user's process says of an action, which this process may have to serve.
    std::string said(const std::string& action) {
        std::string line;
        std::thread reader([&] {
            try {
                line = process_->wait_for_line(action + ": ");
            } catch (const std::exception& nothing) {
                line = nothing.what();
            }
            loop()->post([&] { read_ = true; });
        });
        run_until([this] { return read_; });
        reader.join();
        read_ = false;
        return line.substr(0, action.size() + 2) == action + ": " ? line.substr(action.size() + 2)
                                                                  : line;
    }

    static std::string code(const std::error_code& of) {
        return std::string(of.category().name()) + ' ' + std::to_string(of.value());
    }

    bus_daemon daemon_{bus_daemon::launch::now, rules()};
    std::unique_ptr<child_process> process_;
    unsigned int served_ = 0;
    bool read_ = false;
};

TEST_F(Access, ACallThatTheRulesAllowIsServed) {
    start(user, {"call", "access.open", "ping"});
    EXPECT_EQ(said("connect"), code({}));
    EXPECT_EQ(said("call access.open ping"), code(msg::success) + ", 1 replies");
    EXPECT_EQ(served_, 1U);
}

TEST_F(Access, ACallOfAMethodThatTheRulesLeaveOutIsRefusedAndNotServed) {
    start(user, {"call", "access.open", "secret", "call", "access.open", "ping"});
    EXPECT_EQ(said("call access.open secret"), code(msg::permission_denied) + ", 0 replies");
    EXPECT_EQ(said("call access.open ping"), code(msg::success) + ", 1 replies");
    EXPECT_EQ(served_, 1U) << "the second call only";
}

TEST_F(Access, AMethodThatNobodyHasIsRefusedLikeOneThatIsForbidden) {
    start(user, {"call", "access.open", "nothing"});
    EXPECT_EQ(said("call access.open nothing"), code(msg::permission_denied) + ", 0 replies");
}

TEST_F(Access, AnObjectOfWhichTheRulesNameNothingIsNotFound) {
    start(user, {"call", "access.hidden", "ping", "call", "access.absent", "ping"});
    EXPECT_EQ(said("call access.hidden ping"), code(msg::not_found) + ", 0 replies");
    EXPECT_EQ(said("call access.absent ping"), code(msg::not_found) + ", 0 replies")
        << "one that there is not";
    EXPECT_EQ(served_, 0U);
}

TEST_F(Access, AnObjectWithoutMethodsIsFoundAndItsCallsAreRefused) {
    start(user, {"call", "access.bare", "ping"});
    EXPECT_EQ(said("call access.bare ping"), code(msg::permission_denied) + ", 0 replies");
}

TEST_F(Access, APublicationThatTheRulesAllowIsServed) {
    start(user, {"publish", "access.mine"});
    EXPECT_EQ(said("publish access.mine"), code(msg::success));
    call_outcome called;
    bus().invoke("access.mine", "ping", {}, called.handler(), std::chrono::seconds(0));
    run_until([&] { return called.reported(); });
    EXPECT_EQ(called.code(), msg::success);
    EXPECT_EQ(called.replies().size(), 1U);
}

TEST_F(Access, APublicationThatTheRulesLeaveOutIsRefusedLikeANameThatIsTaken) {
    publish("access.mine", {});
    start(user, {"publish", "access.theirs", "publish", "access.mine"});
    EXPECT_EQ(said("publish access.theirs"), code(msg::invalid_argument));
    EXPECT_EQ(said("publish access.mine"), code(msg::invalid_argument)) << "taken";
    call_outcome called;
    bus().invoke("access.theirs", "ping", {}, called.handler(), std::chrono::seconds(0));
    run_until([&] { return called.reported(); });
    EXPECT_EQ(called.code(), msg::not_found);
}

TEST_F(Access, AProcessOfAUserThatTheSystemDoesNotKnowIsNotLetIn) {
    uid_t stranger = 1000000;
    while (::getpwuid(stranger) != nullptr) {
        ++stranger;
    }
    start(stranger, {"call", "access.open", "ping"});
    EXPECT_EQ(said("connect"), code(error::generic::unknown_error));
    EXPECT_EQ(said("call access.open ping"), code(msg::connection_failed) + ", 0 replies");
    EXPECT_EQ(served_, 0U);
}

TEST_F(Access, EventsAreListenedToAndSentAsTheRulesSay) {
    start(user,
          {"listen", "allowed.*", "listen", "forbidden", "send", "allowed.x", "send", "other"});
    EXPECT_EQ(said("listen allowed.*"), code(msg::success));
    EXPECT_EQ(said("listen forbidden"), code(msg::permission_denied));
    EXPECT_EQ(said("send allowed.x"), code(msg::success));
    EXPECT_EQ(said("send other"), code(msg::permission_denied));
}

TEST_F(Access, WhatTheUserMayNotCallIsNotListed) {
    start(user, {"list", "*"});
    EXPECT_EQ(said("list *"), code(msg::success) + ", 2 objects") << "access.open and access.bare";
}

TEST_F(Access, WithoutTheRightToFollowObjectsAWaitEndsUnlessAllAreThere) {
    start(user, {"follow", "*", "wait", "access.later", "wait", "access.open"});
    EXPECT_EQ(said("follow *"), code(msg::permission_denied));
    EXPECT_EQ(said("wait access.later"), code(msg::permission_denied));
    EXPECT_EQ(said("wait access.open"), code(msg::success));
}

TEST_F(Access, ASubscriptionNeedsTheRightToSubscribe) {
    start(user, {"subscribe", "access.open"});
    EXPECT_EQ(said("subscribe access.open"), code(msg::success));
}

TEST_F(Access, TheMonitorIsForRoot) {
    start(user, {"monitor"});
    EXPECT_EQ(said("monitor "), code(msg::permission_denied));
}

} // namespace
} // namespace tarn::test
