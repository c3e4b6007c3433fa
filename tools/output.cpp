/// Standard output, line by line, for the commands of tarn that others read as it comes.
#include "output.h"

#include "time_stamp.h"

#include <tarn/ext/detail/quote.h>
#include <tarn/ext/json.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace tools {

namespace {

// A pipe that poll() calls writable takes as much without blocking.
constexpr std::size_t chunk_size = 4096;

const char* code_of(colour which) {
    switch (which) {
    case colour::time:
        return "\033[2m";
    case colour::name:
        return "\033[1;36m";
    case colour::detail:
        return "\033[33m";
    }
    return "";
}

} // namespace

bool output::wants_colours() {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return (refused == nullptr || *refused == '\0') && ::isatty(STDOUT_FILENO) == 1 &&
           (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}

output::output(look how, int interrupt_fd)
    : how_(how)
    , interrupt_fd_(interrupt_fd)
    , terminal_(::isatty(STDOUT_FILENO) == 1) {
    // A write then fails with EPIPE, whatever the parent process made of the signal.
    std::signal(SIGPIPE, SIG_IGN);
}

void output::line(const std::string& text) const {
    std::string whole;
    if (how_.time_stamps) {
        whole = paint(colour::time, time_stamp(std::chrono::system_clock::now())) + ' ';
    }
    whole += text;
    whole += '\n';
    for (std::size_t done = 0; done < whole.size();) {
        wait_for_room();
        const ssize_t size =
            ::write(STDOUT_FILENO, whole.data() + done, std::min(chunk_size, whole.size() - done));
        if (size >= 0) {
            done += static_cast<std::size_t>(size);
        } else if (errno == EPIPE) {
            throw reader_gone();
        } else if (errno != EINTR && errno != EAGAIN) {
            throw output_error();
        }
    }
}

// A reader that stands still, such as a pager, must not keep the user from ending the program:
// the signals for that are blocked and would not interrupt a write().
void output::wait_for_room() const {
    for (;;) {
        pollfd both[] = {{STDOUT_FILENO, POLLOUT, 0}, {interrupt_fd_, POLLIN, 0}};
        const int patience = patience_ms();
        const int ready = ::poll(both, 2, patience);
        if (ready < 0 && errno != EINTR) {
            throw output_error();
        }
        if (both[0].revents != 0) {
            return;
        }
        if ((both[1].revents & POLLIN) != 0 || (ready == 0 && patience == 0)) {
            throw interrupted();
        }
    }
}

void output::set_limit(std::chrono::seconds limit) {
    using std::chrono::steady_clock;
    const auto now = steady_clock::now();
    deadline_.reset();
    // A time beyond the clock's is no limit either.
    if (limit != std::chrono::seconds::zero() &&
        limit < std::chrono::duration_cast<std::chrono::seconds>(steady_clock::time_point::max() -
                                                                 now)) {
        deadline_ = now + limit;
    }
}

/// For poll(): how long the rest of the limit is, at most; 0 once it has passed, -1 without one.
int output::patience_ms() const {
    using std::chrono::milliseconds;
    if (!deadline_) {
        return -1;
    }
    const auto rest =
        std::chrono::ceil<milliseconds>(*deadline_ - std::chrono::steady_clock::now());
    constexpr milliseconds::rep longest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp<milliseconds::rep>(rest.count(), 0, longest));
}

std::string output::plain(const std::string& text) const {
    if (!terminal_) {
        return text;
    }
    std::string escaped;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20U) {
            tarn::ext::detail::append_escape(escaped, byte);
        } else {
            escaped += c;
        }
    }
    return tarn::ext::detail::escape_late_controls(std::move(escaped));
}

std::string output::paint(colour which, std::string_view text) const {
    if (!how_.colours) {
        return std::string(text);
    }
    return code_of(which) + std::string(text) + "\033[0m";
}

std::string quoted(const std::string& text) {
    return tarn::ext::write_json(tarn::blob::attr(text));
}

std::string hex_id(unsigned int id) {
    std::array<char, 9> digits{};
    std::snprintf(digits.data(), digits.size(), "%08x", id);
    return digits.data();
}

} // namespace tools
