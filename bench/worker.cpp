/// A program that the driver starts, asks and ends.
#include "worker.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn::bench {
namespace {

constexpr int patience_ms = 120 * 1000;

} // namespace

worker::worker(std::vector<std::string> arguments, const std::string& preload)
    : program_(arguments.at(0)) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
    }
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    // The driver has one thread, so the child is not limited to async-signal-safe functions.
    const pid_t driver = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != driver) {
            ::_exit(126);
        }
        if (!preload.empty()) {
            ::setenv("LD_PRELOAD", preload.c_str(), 1);
        }
        ::dup2(ends[1], STDIN_FILENO);
        ::dup2(ends[1], STDOUT_FILENO);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    channel_ = ends[0];
    if (pid_ < 0) {
        ::close(channel_);
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
}

worker::~worker() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ::close(channel_);
}

bool worker::runs() {
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
    }
    return pid_ > 0;
}

void worker::finish() {
    ::shutdown(channel_, SHUT_WR);
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_ || status != 0) {
        throw std::runtime_error(program_ + " did not end well");
    }
    pid_ = -1;
}

void worker::send(const std::string& line) const {
    const std::string text = line + '\n';
    if (::send(channel_, text.data(), text.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(text.size())) {
        throw std::runtime_error(program_ + " does not take '" + line + "'");
    }
}

std::string worker::receive(const std::string& first_word) {
    auto end = unread_.find('\n');
    while (end == std::string::npos) {
        pollfd readable{channel_, POLLIN, 0};
        char piece[256];
        const ssize_t size =
            ::poll(&readable, 1, patience_ms) > 0 ? ::recv(channel_, piece, sizeof(piece), 0) : 0;
        if (size <= 0) {
            throw std::runtime_error(program_ +
                                     " ended, or did not answer in two minutes, where '" +
                                     first_word + "' was due");
        }
        unread_.append(piece, static_cast<std::size_t>(size));
        end = unread_.find('\n');
    }
    const std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    if (line.compare(0, first_word.size(), first_word) != 0) {
        throw std::runtime_error(program_ + " answered '" + line + "' where '" + first_word +
                                 "' was due");
    }
    return line.substr(first_word.size());
}

std::string worker::ask(const std::string& line, const std::string& first_word) {
    send(line);
    return receive(first_word);
}

} // namespace tarn::bench
