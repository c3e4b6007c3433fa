/// What distinguishes one life of the client from the next, and one connection from another.
#pragma once

#include <cstdint>

namespace tarn {

/// One life of the client. cancel() ends it and begins the next. What was passed to the
/// application's loop in one life is a no-op after it. None while cancel() runs and after the end.
enum class life_id : std::uint64_t { none = 0 };

/// One connection to the bus, from the request for it. Numbers, unlike addresses, are never used
/// again: what belongs to one connection cannot be taken for the next one's.
enum class connection_id : std::uint64_t { none = 0 };

template <class Id>
constexpr Id next_after(Id id) {
    return static_cast<Id>(static_cast<std::uint64_t>(id) + 1);
}

} // namespace tarn
