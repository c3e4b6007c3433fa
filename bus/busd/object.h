/// One object on the bus, for the parts of the broker.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace busd {

class client;
struct object;

/// The methods of an object, shared by all objects published with its id.
struct object_type {
    std::uint32_t id;
    /// The SIGNATURE attribute's payload: whole blobmsg fields, one per method, with names.
    std::vector<std::uint8_t> signature;
};

/// The notifications of `target` go to `subscriber`. There may be several between the same two.
struct subscription {
    object* subscriber;
    object* target;
    /// Where the subscriber's own list has it.
    std::list<std::list<subscription>::iterator>::iterator listed;
};

struct object {
    std::uint32_t id;
    /// None for an anonymous object, which can be called but not looked up.
    std::optional<std::string> path;
    /// Null for an object whose methods are not known; a look-up returns nothing of it.
    std::shared_ptr<object_type> type;
    client* owner;
    /// Where the owner's list has it.
    std::list<object*>::iterator owned{};
    /// The sequence number of the last message that the daemon has sent to it unasked.
    std::uint16_t last_seq = 0;
    /// Subscriptions to this object, and those of this object, the newest first in both.
    std::list<subscription> subscribers{};
    std::list<std::list<subscription>::iterator> targets{};
};

} // namespace busd
