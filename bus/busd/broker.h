/// The bus itself: who is connected, which objects they own, and how each message is handled. Knows
/// no sockets, so that a test or a fuzzer can drive it with bytes alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "client.h"
#include "ubus/message.h"

namespace busd {

/// The methods of an object, shared by all objects published with its id.
struct object_type {
    std::uint32_t id;
    /// The SIGNATURE attribute's payload: whole blobmsg fields, one per method, with names.
    std::vector<std::uint8_t> signature;
};

struct object {
    std::uint32_t id;
    /// None for an anonymous object, which can be called but not looked up.
    std::optional<std::string> path;
    /// Null for an object whose methods are not known; a look-up returns nothing of it.
    std::shared_ptr<object_type> type;
    client* owner;
};

class broker {
public:
    /// Gives the client an id and sends it the greeting. The caller keeps ownership and detaches it
    /// before it is destroyed. Ids are random, so that one of a former connection means nothing in
    /// a later one.
    void attach(client& joining);

    /// Ends what the client has on the bus. Calls that are in progress to its objects stay
    /// unanswered: the broker keeps no record of them.
    void detach(client& leaving);

    /// Handles what the client has sent, in pieces of any size. False once the bytes cannot be
    /// messages any more; the client must be cut off then.
    bool receive(client& sender, const std::uint8_t* bytes, std::size_t count);

private:
    using head = bus::message_head;
    using attributes = bus::attributes;

    void handle(client& sender, const std::uint8_t* bytes, const head& message_head);
    void lookup(client& sender, const head& request, const attributes& given);
    void invoke(client& sender, const head& request, const attributes& given);
    void answer_call(client& sender, const head& answer, const attributes& given);
    void add_object(client& sender, const head& request, const attributes& given);
    void remove_object(client& sender, const head& request, const attributes& given);

    // Sends back what the ping held, `bytes` being the whole message; nothing of it if null.
    void answer_ping(client& asking, const head& request, const std::uint8_t* bytes);
    void describe(client& asking, const head& request, const object& found);
    static void reply_status(client& asking, const head& request, std::uint32_t status);
    static void send(client& receiver, message& ready);

    std::uint32_t unused_id() const;
    void forget(object& leaving);

    std::unordered_map<std::uint32_t, client*> clients_;
    std::unordered_map<std::uint32_t, std::unique_ptr<object>> objects_;
    std::map<std::string, object*> paths_;
    // Only looked at: a type lives as long as an object has it.
    std::unordered_map<std::uint32_t, std::weak_ptr<object_type>> types_;
};

} // namespace busd
