/// A child process of a test.
#include "support/child_process.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tarn::test {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

child_process::child_process(std::vector<std::string> arguments, input from) {
    std::array<int, 2> input_ends{-1, -1};
    if (from == input::pipe && ::pipe2(input_ends.data(), O_CLOEXEC) < 0) {
        fail("pipe2");
    }
    std::array<int, 2> pipe_ends{};
    if (::pipe2(pipe_ends.data(), O_CLOEXEC) < 0) {
        fail("pipe2");
    }
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    pid_ = ::fork();
    if (pid_ < 0) {
        fail("fork");
    }
    if (pid_ == 0) {
        // Only async-signal-safe calls: the test may have threads.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(pipe_ends[1], STDOUT_FILENO);
        if (from == input::pipe) {
            ::dup2(input_ends[0], STDIN_FILENO);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipe_ends[1]);
    output_ = pipe_ends[0];
    if (from == input::pipe) {
        ::close(input_ends[0]);
        input_ = input_ends[1];
    }
}

child_process::~child_process() {
    kill(SIGKILL);
    wait();
    ::close(output_);
    close_input();
}

void child_process::write_line(const std::string& line) {
    const std::string text = line + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t more = ::write(input_, text.data() + written, text.size() - written);
        if (more < 0 && errno != EINTR) {
            fail("write");
        }
        written += more > 0 ? static_cast<std::size_t>(more) : 0;
    }
}

void child_process::close_input() {
    if (input_ >= 0) {
        ::close(std::exchange(input_, -1));
    }
}

void child_process::kill(int signo) const {
    if (!ended_) {
        ::kill(pid_, signo);
    }
}

void child_process::pause() const {
    kill(SIGSTOP);
    siginfo_t held{};
    while (::waitid(P_PID, static_cast<id_t>(pid_), &held, WSTOPPED | WEXITED | WNOWAIT) < 0 &&
           errno == EINTR) {}
}

int child_process::wait() {
    if (!ended_) {
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {}
        ended_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
}

bool child_process::read_more(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd readable{output_, POLLIN, 0};
    const int ready = left.count() > 0 ? ::poll(&readable, 1, static_cast<int>(left.count())) : 0;
    if (ready == 0) {
        throw std::runtime_error("child process: nothing more within the limit; so far: " +
                                 unread_);
    }
    std::array<char, 4096> chunk{};
    const ssize_t size = ::read(output_, chunk.data(), chunk.size());
    if (size < 0 && errno == EINTR) {
        return true;
    }
    if (size <= 0) {
        return false;
    }
    unread_.append(chunk.data(), static_cast<std::size_t>(size));
    return true;
}

std::string child_process::wait_for_line(const std::string& prefix, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        for (auto end = unread_.find('\n'); end != std::string::npos; end = unread_.find('\n')) {
            const std::string line = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            if (line.compare(0, prefix.size(), prefix) == 0) {
                return line;
            }
        }
        if (!read_more(deadline)) {
            throw std::runtime_error("child process: its output ended without '" + prefix + "'");
        }
    }
}

std::string child_process::read_rest(std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (read_more(deadline)) {}
    return std::exchange(unread_, {});
}

} // namespace tarn::test
