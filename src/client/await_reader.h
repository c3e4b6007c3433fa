/// Waiting for the other end of a local socket to read what was written.
#pragma once

#include <chrono>

namespace tarn {

/// Returns when the peer of a connected Unix stream socket has read everything that was written to
/// it, or has gone, at the latest after `limit`. Reads nothing from the socket and writes nothing,
/// and does not return early on a signal. Returns at once where the kernel cannot report it.
void await_reader(int socket, std::chrono::milliseconds limit) noexcept;

} // namespace tarn
