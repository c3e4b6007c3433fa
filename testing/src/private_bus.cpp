/// A bus daemon of a test's own.
#include "tarn/testing/private_bus.h"

#include "tarn/testing/temporary_folder.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tarn::testing {

namespace fs = std::filesystem;

namespace {

constexpr auto start_limit = std::chrono::seconds(20);
// Between two attempts to connect to a daemon that is not listening yet, in milliseconds.
constexpr int retry_interval = 2;
// Every greeting is a header and an empty blob.
constexpr std::size_t hello_size = 12;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

bool is_program(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

std::string find_daemon() {
    if (const char* const named = std::getenv("TARN_TEST_BUSD")) {
        return named;
    }
    const char* const path = std::getenv("PATH");
    const std::string folders = path ? path : "/usr/sbin:/usr/bin";
    for (const char* const name : {"tarn-busd", "ubusd"}) {
        std::istringstream all(folders);
        for (std::string each; std::getline(all, each, ':');) {
            if (is_program(each + '/' + name)) {
                return each + '/' + name;
            }
        }
    }
    throw std::runtime_error("no bus daemon: TARN_TEST_BUSD is not set, and PATH has neither "
                             "tarn-busd nor ubusd");
}

} // namespace

private_bus::private_bus()
    : private_bus(options()) {}

private_bus::private_bus(options chosen)
    : chosen_(std::move(chosen))
    , folder_(std::make_unique<const temporary_folder>())
    , address_(std::make_unique<const bus_address>(folder_->path() + "/ubus.sock",
                                                   chosen_.compiled_in_socket)) {
    if (!chosen_.access_rules.empty()) {
        rules_path_ = folder_->path() + "/acl.d";
        fs::create_directory(rules_path_);
        const std::string file = rules_path_ + "/test.json";
        std::ofstream(file) << chosen_.access_rules;
        // The daemon ignores files that others may write; and other users connect to the socket.
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
        fs::permissions(folder_->path(),
                        fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
    }
    if (chosen_.start) {
        start();
    }
}

private_bus::~private_bus() {
    end(SIGKILL);
}

void private_bus::start() {
    if (pid_ > 0) {
        throw std::logic_error("the daemon is running already");
    }
    const pid_t parent = ::getpid();
    const std::string program = chosen_.daemon.empty() ? find_daemon() : chosen_.daemon;
    std::vector<std::string> words{program, "-s", socket_path()};
    if (!rules_path_.empty()) {
        words.insert(words.end(), {"-A", rules_path_});
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        fail("fork");
    }
    if (child == 0) {
        // Killed when the thread that started it ends, so with the test process, however that ends.
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

int private_bus::stop() {
    return end(SIGTERM);
}

void private_bus::kill9() {
    end(SIGKILL);
}

void private_bus::restart() {
    kill9();
    start();
}

void private_bus::pause() {
    if (pid_ > 0) {
        ::kill(pid_, SIGSTOP);
        held_ = true;
        // Returns once it is held.
        while (::waitpid(pid_, nullptr, WUNTRACED) < 0 && errno == EINTR) {}
    }
}

void private_bus::resume() {
    // Only then: the leak checker of a daemon that is ending does not tolerate SIGCONT.
    if (pid_ > 0 && held_) {
        ::kill(pid_, SIGCONT);
    }
    held_ = false;
}

int private_bus::connect() const {
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

bool private_bus::greets() const {
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

int private_bus::end(int signal) {
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
    // Other code may have collected it: uloop waits for every child of the process.
    const int seen = result == pid_ ? status : -1;
    pid_ = -1;
    return seen;
}

} // namespace tarn::testing
