/// tarn has colours on a terminal, and nowhere else; and no control characters of others there.
#include "tools/tool.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>

namespace tarn::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* escape = "\033[";

/// A terminal of the test's own.
class terminal {
public:
    terminal()
        : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (master_ < 0 || ::grantpt(master_) < 0 || ::unlockpt(master_) < 0) {
            throw std::system_error(errno, std::generic_category(), "posix_openpt");
        }
        // Held, since the output of a terminal that is open nowhere is lost.
        slave_ = ::open(::ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    ~terminal() {
        ::close(slave_);
        ::close(master_);
    }
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    /// What `line` of shell, in which "$0" is the tool, prints on it.
    std::string shows(const std::string& line) const {
        EXPECT_EQ(
            run({"/bin/sh", "-c", "exec >\"$1\"; " + line, TARN_TEST_TOOL, ::ptsname(master_)})
                .status,
            0);
        std::array<char, 4096> text{};
        const ssize_t size = ::read(master_, text.data(), text.size());
        return {text.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
    }

private:
    int master_;
    int slave_ = -1;
};

TEST_F(CliWithHorn, ATerminalThatKnowsColoursGetsThem) {
    ::setenv("TERM", "xterm", 1);
    ::unsetenv("NO_COLOR");
    EXPECT_EQ(terminal().shows("exec \"$0\" list"), "\033[1;36mhorn\033[0m\r\n");
}

TEST_F(CliWithHorn, NoColoursWithNoColor) {
    ::setenv("TERM", "xterm", 1);
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(terminal().shows("exec \"$0\" list"), "horn\r\n");
    ::setenv("NO_COLOR", "", 1); // as if it were not set
    EXPECT_THAT(terminal().shows("exec \"$0\" list"), HasSubstr(escape));
}

TEST_F(CliWithHorn, NoColoursInJsonNorOnADumbTerminal) {
    ::unsetenv("NO_COLOR");
    ::setenv("TERM", "xterm", 1);
    EXPECT_THAT(terminal().shows("exec \"$0\" list -s"), Not(HasSubstr(escape)));
    ::setenv("TERM", "dumb", 1);
    EXPECT_EQ(terminal().shows("exec \"$0\" list"), "horn\r\n");
}

TEST_F(CliWithHorn, NoColoursElsewhere) {
    ::setenv("TERM", "xterm", 1);
    ::unsetenv("NO_COLOR");
    EXPECT_EQ(tool({"list"}).output, "horn\n");
}

// What is on the bus may be anybody's.
TEST_F(Cli, NoControlCharacterOfAPathReachesATerminal) {
    ::setenv("NO_COLOR", "1", 1);
    const auto horn = start_horn("a\033[2J\r\n\t\x7f\xc2\x9b\xc3\x9b");
    const std::string shown = R"(a\u001b[2J\u000d\u000a\u0009\u007f\u009b)"
                              "\xc3\x9b";
    EXPECT_EQ(terminal().shows("exec \"$0\" list"), shown + "\r\n");
    EXPECT_THAT(terminal().shows("exec \"$0\" list -v"), StartsWith('\'' + shown + "' @"));
    EXPECT_EQ(tool({"list"}).output, "a\033[2J\r\n\t\x7f\xc2\x9b\xc3\x9b\n") << "as ubus";
}

} // namespace
} // namespace tarn::test
