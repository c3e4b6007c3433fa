/// The command-line client as tests start it, and a bus with services for it.
#pragma once

#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tarn::test {

struct ended {
    std::string output; ///< both streams
    int status = -1;
};

/// The command line that runs the tool, or another program, with both streams on one.
inline std::vector<std::string> command_line(const std::vector<std::string>& words,
                                             const std::string& program = TARN_TEST_TOOL) {
    std::vector<std::string> line{"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1", program};
    line.insert(line.end(), words.begin(), words.end());
    return line;
}

inline ended run(const std::vector<std::string>& command) {
    child_process child(command);
    ended result;
    result.output = child.read_rest();
    result.status = child.wait();
    return result;
}

inline ended tool(const std::vector<std::string>& words) {
    return run(command_line(words));
}

/// A line of shell in which "$0" is the tool.
inline ended shell(const std::string& line) {
    return run({"/bin/sh", "-c", line, TARN_TEST_TOOL});
}

/// The tool at the end of a pipe into which a shell's printf writes `input`.
inline ended tool_with_input(const std::string& input, const std::vector<std::string>& words) {
    std::vector<std::string> line{"/bin/sh", "-c",
                                  "printf '%s' \"$1\" | { shift; exec \"$0\" \"$@\" 2>&1; }",
                                  TARN_TEST_TOOL, input};
    line.insert(line.end(), words.begin(), words.end());
    return run(line);
}

/// Descriptor 9 of the programs that are started meanwhile: a pipe.
class output_pipe {
public:
    output_pipe(const output_pipe&) = delete;
    output_pipe& operator=(const output_pipe&) = delete;

protected:
    output_pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) < 0 || ::dup2(ends[1], number) < 0) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        reader_ = ends[0];
        ::close(ends[1]);
    }
    ~output_pipe() {
        ::close(number);
        close_reader();
    }

    void close_reader() { ::close(std::exchange(reader_, -1)); }

    static constexpr int number = 9;

private:
    int reader_ = -1;
};

/// One whose reader has gone.
class broken_pipe : output_pipe {
public:
    broken_pipe() { close_reader(); }
};

/// One that is full, and that nobody reads.
class full_pipe : output_pipe {
public:
    full_pipe() {
        const int flags = ::fcntl(number, F_GETFL);
        ::fcntl(number, F_SETFL, flags | O_NONBLOCK);
        const std::array<char, 4096> page{};
        while (::write(number, page.data(), page.size()) > 0) {}
        ::fcntl(number, F_SETFL, flags);
    }
};

/// Wrong usage is 2 for `call` and for the command line as such, and what ubus has for the others.
inline void expect_usage_error(const std::vector<std::string>& words, const std::string& text,
                               int status = 2) {
    const auto result = tool(words);
    EXPECT_EQ(result.output, "tarn: " + text + "\nTry 'tarn --help'.\n");
    EXPECT_EQ(result.status, status);
}

/// A bus with nothing on it.
class Cli : public ::testing::Test {
protected:
    void start_service() {
        service_ = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_SERVICE});
        service_->wait_for_line("demo_service: ready");
    }

    /// The object "horn", or one like it at another path.
    std::unique_ptr<child_process> start_horn(const std::string& path = "horn") const {
        auto horn = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_HORN, path});
        horn->wait_for_line("horn: ready");
        return horn;
    }

    bus_daemon daemon_;
    std::unique_ptr<child_process> service_;
};

/// The same with the object "demo".
class CliWithService : public Cli {
protected:
    void SetUp() override { start_service(); }
};

/// The same with the object "horn", which notifies.
class CliWithHorn : public Cli {
protected:
    void SetUp() override { horn_ = start_horn(); }

    std::unique_ptr<child_process> horn_;
};

} // namespace tarn::test
