/// A bus daemon for one test.
#include "support/bus_daemon.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace tarn::test {
namespace {

constexpr auto start_limit = std::chrono::seconds(20);
// Between two attempts to connect to a daemon that is not listening yet, in milliseconds.
constexpr int retry_interval = 2;
// Every greeting is a header and an empty blob.
constexpr std::size_t hello_size = 12;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

} // namespace

bus_daemon::bus_daemon(launch when, const std::string& access_rules) {
    if (!access_rules.empty()) {
        namespace fs = std::filesystem;
        rules_path_ = folder_.path() + "/acl.d";
        fs::create_directory(rules_path_);
        const std::string file = rules_path_ + "/test.json";
        std::ofstream(file) << access_rules;
        // The daemon passes over files that others may write; and others come to the socket.
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
        fs::permissions(folder_.path(),
                        fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
    }
    if (when == launch::now) {
        start();
    }
}

bus_daemon::~bus_daemon() {
    end(SIGKILL);
}

void bus_daemon::start() {
    if (pid_ > 0) {
        throw std::logic_error("the daemon is running already");
    }
    const pid_t parent = ::getpid();
    const std::string program = TARN_TEST_BUSD_PATH;
    std::vector<std::string> words{program, "-s", socket_path()};
    if (!rules_path_.empty()) {
        words.insert(words.end(), {"-A", rules_path_});
    }
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        fail("fork");
    }
    if (child == 0) {
        // Goes with the thread that started it, so with the test process, whatever ends that.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(126);
        }
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const int quiet = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        ::dup2(quiet, STDIN_FILENO);
        ::dup2(quiet, STDOUT_FILENO);
        ::execv(program.c_str(), arguments.data());
        ::_exit(127);
    }
    pid_ = child;
    const auto deadline = std::chrono::steady_clock::now() + start_limit;
    while (!greets()) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error(program + " ended at its start, status " +
                                     std::to_string(status));
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            end(SIGKILL);
            throw std::runtime_error(program + " does not serve " + socket_path());
        }
        ::poll(nullptr, 0, retry_interval);
    }
}

int bus_daemon::stop() {
    return end(SIGTERM);
}

void bus_daemon::kill9() {
    end(SIGKILL);
}

void bus_daemon::restart() {
    kill9();
    start();
}

void bus_daemon::pause() {
    if (pid_ > 0) {
        ::kill(pid_, SIGSTOP);
        held_ = true;
        // Returns once it is held.
        while (::waitpid(pid_, nullptr, WUNTRACED) < 0 && errno == EINTR) {}
    }
}

void bus_daemon::resume() {
    // Only then: the leak checker of a daemon that is ending stands no SIGCONT.
    if (pid_ > 0 && held_) {
        ::kill(pid_, SIGCONT);
    }
    held_ = false;
}

int bus_daemon::connect() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path().size() >= sizeof address.sun_path) {
        return -1;
    }
    std::memcpy(address.sun_path, socket_path().c_str(), socket_path().size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 &&
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool bus_daemon::greets() const {
    const int fd = connect();
    if (fd < 0) {
        return false;
    }
    char hello[hello_size];
    std::size_t have = 0;
    pollfd readable{fd, POLLIN, 0};
    while (have<sizeof hello&& ::poll(
               &readable, 1, static_cast<int>(std::chrono::milliseconds(start_limit).count()))> 0) {
        const ssize_t count = ::recv(fd, hello + have, sizeof hello - have, 0);
        if (count <= 0) {
            break;
        }
        have += static_cast<std::size_t>(count);
    }
    ::close(fd);
    return have == sizeof hello;
}

int bus_daemon::end(int signal) {
    if (pid_ <= 0) {
        return -1;
    }
    // A held process would not notice a signal it handles.
    resume();
    ::kill(pid_, signal);
    int status = 0;
    pid_t result = 0;
    do {
        result = ::waitpid(pid_, &status, 0);
    } while (result < 0 && errno == EINTR);
    // Someone else may have collected it: uloop waits for every child of the process.
    const int seen = result == pid_ ? status : -1;
    pid_ = -1;
    return seen;
}

} // namespace tarn::test
