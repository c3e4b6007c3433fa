/// What happened in a sequence.
#include "journal.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace tarn::test::journal {

namespace {

// Fixed and without a lock: a signal handler prints it.
std::array<char, 1 << 20> lines;
std::atomic<std::size_t> used{0};
std::string heading;
std::chrono::steady_clock::time_point start;
thread_local const char* name = "private";

std::size_t length() {
    return std::min(used.load(), lines.size());
}

void print(const char* text, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(STDERR_FILENO, text, size);
        if (written <= 0) {
            return;
        }
        text += written;
        size -= static_cast<std::size_t>(written);
    }
}

void print_all() {
    static constexpr char title[] = "\nThe process died in this sequence:\n";
    print(title, sizeof title - 1);
    print(heading.data(), heading.size());
    print(lines.data(), length());
}

void on_signal(int signo) {
    print_all();
    ::signal(signo, SIG_DFL);
    ::raise(signo);
}

} // namespace

void begin(const std::string& shown_above) {
    heading = shown_above;
    used = 0;
    start = std::chrono::steady_clock::now();
}

void name_thread(const char* thread) {
    name = thread;
}

const char* thread_name() {
    return name;
}

void note(const std::string& line) {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start);
    std::array<char, 512> text{};
    const int wanted = std::snprintf(text.data(), text.size() - 1, "%8lld us  %-8s  %s",
                                     static_cast<long long>(now.count()), name, line.c_str());
    std::size_t size = std::min(static_cast<std::size_t>(wanted), text.size() - 2);
    text[size++] = '\n';
    const std::size_t at = used.fetch_add(size);
    if (at < lines.size()) {
        std::memcpy(&lines[at], text.data(), std::min(size, lines.size() - at));
    }
}

std::string text() {
    return heading + std::string(lines.data(), length());
}

void print_at_crash() {
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(&print_all);
        ::signal(SIGABRT, &on_signal);
        return;
    }
    for (const int signo : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        ::signal(signo, &on_signal);
    }
}

} // namespace tarn::test::journal
