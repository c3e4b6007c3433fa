/// What distinguishes one life of the client from the next, and one connection from another.
#pragma once

#include <cstdint>

namespace tarn {

/// As many as a word of the machine counts, which every processor reads and writes at once. With 32
/// bits, numbers come again after 2^32 cancellations or connections, when nothing is left of the
/// earlier ones.
using identity_number = std::uintptr_t;

/// One life of the client. cancel() ends it and begins the next. What was passed to the
/// application's loop in one life is a no-op after it. None while cancel() runs and after the end.
enum class life_id : identity_number { none = 0 };

/// One connection to the bus, from the request for it. Numbers, unlike addresses, are not used
/// again: what belongs to one connection cannot be taken for the next one's.
enum class connection_id : identity_number { none = 0 };

template <class Id>
constexpr Id next_after(Id id) {
    const auto next = static_cast<Id>(static_cast<identity_number>(id) + 1);
    return next == Id::none ? next_after(next) : next;
}

} // namespace tarn
