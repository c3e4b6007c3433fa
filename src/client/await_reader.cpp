/// Waiting for the other end of a local socket to read what was written.
#include "client/await_reader.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

namespace tarn {

namespace {

/// No event reports that the peer has read, so this is polled, at longer and longer intervals.
constexpr std::chrono::nanoseconds first_nap = std::chrono::microseconds(20);
constexpr std::chrono::nanoseconds longest_nap = std::chrono::milliseconds(5);

bool has_been_read(int socket) noexcept {
    int unread = 0;
    return ::ioctl(socket, SIOCOUTQ, &unread) != 0 || unread == 0;
}

/// Whether the peer is gone by then.
bool gone_within(int socket, std::chrono::nanoseconds nap) noexcept {
    pollfd end{socket, 0, 0}; // which is reported without being requested
    const timespec limit{0, static_cast<long>(nap.count())};
    return ::ppoll(&end, 1, &limit, nullptr) > 0;
}

} // namespace

void await_reader(int socket, std::chrono::milliseconds limit) noexcept {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto nap = first_nap;
    while (!has_been_read(socket) && std::chrono::steady_clock::now() < deadline &&
           !gone_within(socket, nap)) {
        nap = std::min(2 * nap, longest_nap);
    }
}

} // namespace tarn
