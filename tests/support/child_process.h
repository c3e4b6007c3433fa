/// A child process of a test: started, listened to, killed, and never left behind.
#pragma once

#include <chrono>
#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tarn::test {

/// Starts a program with its standard output on a pipe. The child dies with the thread that made
/// it, or with this object, whichever ends first.
class child_process {
public:
    /// Where its standard input comes from.
    enum class input {
        inherited,
        pipe, ///< what write_line() writes
    };

    /// Starts `arguments[0]` (a path). Throws std::system_error when that fails.
    explicit child_process(std::vector<std::string> arguments, input from = input::inherited);
    ~child_process();
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    pid_t pid() const { return pid_; }

    /// Writes a line to its standard input; closes it.
    void write_line(const std::string& line);
    void close_input();

    /// Reads the child's output until a line that begins with `prefix`, and returns that line.
    /// Throws std::runtime_error when the output ends, or `limit` passes, without one.
    std::string wait_for_line(const std::string& prefix,
                              std::chrono::seconds limit = std::chrono::seconds(20));

    /// Everything that the child still prints, until it closes its output (or `limit` passes).
    std::string read_rest(std::chrono::seconds limit = std::chrono::seconds(60));

    /// Sends a signal; nothing happens when the child was waited for already.
    void kill(int signo) const;

    /// Holds it (SIGSTOP), and returns once it is held; lets it go on (SIGCONT).
    void pause() const;
    void resume() const { kill(SIGCONT); }

    /// Waits for the child's end and returns its exit status, or 128 + signal number.
    int wait();

private:
    bool read_more(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int output_ = -1;
    int input_ = -1;
    int status_ = -1;
    bool ended_ = false;
    std::string unread_;
};

} // namespace tarn::test
