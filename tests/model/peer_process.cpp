/// The process model_peer.
#include "peer_process.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
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
    // These stay open in the child.
    ::fcntl(ends[1], F_SETFD, 0);
    const int memory = ::memfd_create("model_peer", 0);
    if (memory < 0 || ::ftruncate(memory, sizeof *last_event_) != 0) {
        throw std::runtime_error("no shared memory");
    }
    void* const shared =
        ::mmap(nullptr, sizeof *last_event_, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (shared == MAP_FAILED) {
        throw std::runtime_error("no shared memory");
    }
    last_event_ = static_cast<std::uint32_t*>(shared);
    orders_ = ends[0];
    process_ = std::make_unique<child_process>(std::vector<std::string>{
        TARN_TEST_MODEL_PEER, daemon, std::to_string(ends[1]), std::to_string(memory)});
    ::close(ends[1]);
    ::close(memory);
    if (take_line(patience) != "ready") {
        throw std::runtime_error("model_peer is not ready");
    }
}

peer_process::~peer_process() {
    process_.reset();
    ::close(orders_);
    ::munmap(last_event_, sizeof *last_event_);
}

void peer_process::order(const std::string& line) {
    // Nobody is there to take it when the bus has gone; the answer is missed then.
    (void)!::send(orders_, line.data(), line.size(), MSG_NOSIGNAL);
}

int peer_process::start(const std::string& verb, const std::string& objects) {
    // Given once: an answer by the process that follows this one is not taken for its answer.
    static std::atomic<int> orders{0};
    const std::lock_guard<std::mutex> guard(lock_);
    const int number = ++orders;
    order(verb + " " + std::to_string(number) + " " + objects + "\n");
    return number;
}

long peer_process::last_event() const {
    return static_cast<long>(__atomic_load_n(last_event_, __ATOMIC_ACQUIRE));
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

std::optional<peer_process::answer> peer_process::find_answer(int number) {
    return wait_for_answer(number, std::chrono::milliseconds(0));
}

/// Notes what the line says. False for one that says nothing, or has not come.
bool peer_process::absorb(const std::string& line) {
    int number = 0;
    answer told;
    if (std::sscanf(line.c_str(), "done %d %d %d", &number, &told.status, &told.token) == 3) {
        answers_[number] = told;
        return true;
    }
    if (std::sscanf(line.c_str(), "heard %d", &number) == 1) {
        ++heard_[number];
        return true;
    }
    return false;
}

std::optional<peer_process::answer> peer_process::wait_for_answer(int number,
                                                                  std::chrono::milliseconds limit) {
    for (;;) {
        const auto found = answers_.find(number);
        if (found != answers_.end()) {
            return found->second;
        }
        if (!absorb(take_line(limit))) {
            return {};
        }
    }
}

int peer_process::times_heard(int token) {
    while (absorb(take_line(std::chrono::milliseconds(0)))) {}
    return heard_[token];
}

bool peer_process::reset() {
    order("reset\n");
    for (;;) {
        const std::string line = take_line(patience);
        if (line == "reset") {
            answers_.clear();
            heard_.clear();
            return true;
        }
        if (line.empty()) {
            return false;
        }
    }
}

} // namespace tarn::test
