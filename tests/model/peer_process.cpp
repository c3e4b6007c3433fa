/// The process model_peer.
#include "peer_process.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace tarn::test {

namespace {

constexpr std::chrono::seconds patience{20};

} // namespace

peer_process::peer_process(const std::string& daemon) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("no socket pair");
    }
    // The other end stays open in the child.
    ::fcntl(ends[1], F_SETFD, 0);
    orders_ = ends[0];
    process_ = std::make_unique<child_process>(
        std::vector<std::string>{TARN_TEST_MODEL_PEER, daemon, std::to_string(ends[1])});
    ::close(ends[1]);
    if (take_line(patience) != "ready") {
        throw std::runtime_error("model_peer is not ready");
    }
}

peer_process::~peer_process() {
    process_.reset();
    ::close(orders_);
}

void peer_process::order(const std::string& line) {
    // Nobody is there to take it when the bus has gone; the answer is missed then.
    (void)!::send(orders_, line.data(), line.size(), MSG_NOSIGNAL);
}

int peer_process::start_call(const std::string& path, const std::string& method) {
    // Given once: an answer by the process that follows this one is not taken for its answer.
    static std::atomic<int> calls{0};
    const int call = ++calls;
    const std::lock_guard<std::mutex> guard(lock_);
    order("call " + std::to_string(call) + " " + path + " " + method + "\n");
    return call;
}

bool peer_process::read_more(std::chrono::milliseconds limit) {
    pollfd readable{orders_, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(limit.count())) <= 0) {
        return false;
    }
    std::array<char, 4096> buffer;
    const ssize_t size = ::recv(orders_, buffer.data(), buffer.size(), 0);
    if (size <= 0) {
        return false;
    }
    unread_.append(buffer.data(), static_cast<std::size_t>(size));
    return true;
}

std::string peer_process::take_line(std::chrono::milliseconds limit) {
    for (;;) {
        const std::size_t end = unread_.find('\n');
        if (end != std::string::npos) {
            const std::string line = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            return line;
        }
        if (!read_more(limit)) {
            return {};
        }
    }
}

std::optional<peer_process::answer> peer_process::find_answer(int call) {
    return wait_for_answer(call, std::chrono::milliseconds(0));
}

std::optional<peer_process::answer> peer_process::wait_for_answer(int call,
                                                                  std::chrono::milliseconds limit) {
    for (;;) {
        const auto found = answers_.find(call);
        if (found != answers_.end()) {
            return found->second;
        }
        const std::string line = take_line(limit);
        int number = 0;
        answer told;
        if (std::sscanf(line.c_str(), "done %d %d %d", &number, &told.status, &told.token) != 3) {
            return {};
        }
        answers_[number] = told;
    }
}

bool peer_process::reset() {
    order("reset\n");
    for (;;) {
        const std::string line = take_line(patience);
        if (line == "reset") {
            answers_.clear();
            return true;
        }
        if (line.empty()) {
            return false;
        }
    }
}

} // namespace tarn::test
