/// tarn of a user who is not root, under access rules.
#include "tools/tool.h"

#include <pwd.h>

namespace tarn::test {
namespace {

/// "nobody" on every system that has it.
constexpr uid_t user = 65534;

class CliAccess : public ::testing::Test {
protected:
    /// The rules for `user`, whom the daemon knows by the name.
    static std::string rules() {
        const passwd* const known = ::getpwuid(user);
        if (known == nullptr) {
            throw std::runtime_error("this system has no user of the number " +
                                     std::to_string(user));
        }
        return std::string(R"({"user": ")") + known->pw_name + R"(",
            "access": {"horn": {"methods": ["sound"]}}, "listen": ["open.*"], "send": ["open.*"],
            "subscribe": ["horn"]})";
    }

    void SetUp() override { horn_.wait_for_line("horn: ready"); }

    static ended users_tool(const std::vector<std::string>& words) {
        return run(users_command_line(words));
    }

    static std::vector<std::string> users_command_line(const std::vector<std::string>& words) {
        const std::string number = std::to_string(user);
        std::vector<std::string> line{"--reuid=" + number, "--regid=" + number, "--clear-groups",
                                      TARN_TEST_TOOL};
        line.insert(line.end(), words.begin(), words.end());
        return command_line(line, "/usr/bin/setpriv");
    }

    static void expect_refused(const std::vector<std::string>& words, const std::string& output) {
        const auto refused = users_tool(words);
        EXPECT_EQ(refused.output, output);
        EXPECT_EQ(refused.status, 6);
    }

    bus_daemon daemon_{bus_daemon::launch::now, rules()};
    child_process horn_{{TARN_TEST_HORN}};
};

TEST_F(CliAccess, MonitorIsForRoot) {
    expect_refused({"monitor"}, "tarn: monitor: Permission denied\n");
}

TEST_F(CliAccess, ListenToWhatIsClosedEndsWith6) {
    expect_refused({"listen", "open.news", "closed.news"},
                   "tarn: closed.news: Permission denied\n");
}

TEST_F(CliAccess, SendOfWhatIsClosedIs6) {
    EXPECT_EQ(users_tool({"send", "open.news"}).status, 0);
    expect_refused({"send", "closed.news"}, "tarn: closed.news: Permission denied\n");
}

TEST_F(CliAccess, ListShowsTheMethodsThatAreOpen) {
    const auto listed = users_tool({"list", "-v"});
    EXPECT_EQ(listed.output.substr(listed.output.find('\n') + 1),
              "\t\"sound\":{\"text\":\"String\",\"loud\":\"Boolean\"}\n");
    EXPECT_EQ(listed.status, 0);
}

TEST_F(CliAccess, WaitForWhatIsOpenEndsAndForTheRestIs6) {
    EXPECT_EQ(users_tool({"wait", "horn"}).status, 0);
    expect_refused({"wait", "other"}, "tarn: other: Permission denied\n");
}

TEST_F(CliAccess, SubscribeWithoutTheRightToFollowObjectsNeedsThemToBeThere) {
    child_process subscriber(users_command_line({"subscribe", "horn"}));
    EXPECT_EQ(subscriber.wait_for_line("tarn"),
              "tarn: horn: will not be subscribed to when it comes back: Permission denied");
    EXPECT_EQ(tool({"call", "horn", "sound"}).status, 0);
    EXPECT_EQ(subscriber.wait_for_line("{"), R"({ "sounded": {} })");
    expect_refused({"subscribe", "horn", "other"},
                   "tarn: horn: will not be subscribed to when it comes back: Permission denied\n"
                   "tarn: other: Permission denied\n");
}

TEST_F(CliAccess, SubscribeToWhatIsClosedIs6) {
    child_process demo({TARN_TEST_SERVICE});
    demo.wait_for_line("demo_service: ready");
    expect_refused({"subscribe", "demo"}, "tarn: demo: Permission denied\n");
}

} // namespace
} // namespace tarn::test
