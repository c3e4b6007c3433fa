/// The bus itself: who is connected, which objects they own, and how each message is handled. Knows
/// no sockets, so that a test or a fuzzer can drive it with bytes alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "client.h"
#include "event_patterns.h"
#include "object.h"
#include "ubus/message.h"

namespace busd {

/// The daemon's own objects: callable, but nobody's to withdraw or to subscribe to.
inline bool is_system_object(std::uint32_t id) {
    return id == UBUS_SYSTEM_OBJECT_EVENT || id == UBUS_SYSTEM_OBJECT_MONITOR;
}

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

    /// Goes on with the answers to the client's look-ups, a piece of them; to be called when it has
    /// read what waits for it, as long as client::has_more() says so.
    void resume(client& asking);

private:
    using head = bus::message_head;
    using attributes = bus::attributes;

    // broker.cpp
    void handle(client& sender, const std::uint8_t* bytes, const head& message_head);
    // Sends back what the ping held, `bytes` being the whole message; nothing of it if null.
    void answer_ping(client& asking, const head& request, const std::uint8_t* bytes);
    void reply_status(client& asking, const head& request, std::uint32_t status);
    // Lost if the client has no room for it.
    static bool make_room(client& receiver, const message& ready, std::size_t more = 0);
    void send(client& receiver, message& ready);
    std::uint32_t unused_id() const;
    object* find_object(std::uint32_t id) const;

    // objects.cpp
    void add_object(client& sender, const head& request, const attributes& given);
    void remove_object(client& sender, const head& request, const attributes& given);
    void forget(object& leaving);

    // lookup.cpp
    void lookup(client& sender, const head& request, const attributes& given);
    bool answer_lookup(client& asking, pending_lookup& request);
    bool describe(client& asking, const head& request, const object& found);
    bool end_lookup(client& asking, const pending_lookup& request);

    // calls.cpp
    void invoke(client& sender, const head& request, const attributes& given);
    void answer_call(client& sender, const head& answer, const attributes& given);

    // monitor.cpp
    std::uint32_t call_monitor(client& sender, const attributes& given);
    void end_monitor(const client& leaving);
    // Sends a copy of a whole message to every monitor.
    enum class direction { from_client, to_client };
    void show(const client& whose, direction way, const std::uint8_t* bytes, std::size_t size);

    // events.cpp
    std::uint32_t call_events(client& sender, const attributes& given);
    std::uint32_t listen(client& sender, blob_attr* data);
    std::uint32_t take_event(client& sender, blob_attr* data);
    // Sends an event, `table` being blobmsg fields, to all that listen; not to `sender`, null for
    // the daemon itself.
    void publish_event(const client* sender, const std::string& id, const void* table,
                       std::size_t size);
    void publish_change(const char* id, const object& changed);

    // subscriptions.cpp
    void subscribe(client& sender, const head& request, const attributes& given);
    void unsubscribe(client& sender, const head& request, const attributes& given);
    void notify(client& sender, const head& request, const attributes& given);
    std::uint32_t find_subscription_ends(const client& sender, const attributes& given,
                                         object*& subscriber, object*& target) const;
    void end_subscription(std::list<subscription>::iterator ending);
    void end_subscriptions(object& leaving);
    void report_activity(object& target, bool active);

    struct monitor {
        client* reader;
        // Counts the copies that did not fit, too: the reader sees by a gap that it has missed
        // some.
        std::uint16_t last_seq;
    };

    std::unordered_map<std::uint32_t, client*> clients_;
    std::unordered_map<std::uint32_t, std::unique_ptr<object>> objects_;
    std::map<std::string, object*> paths_;
    // Only looked at: a type lives as long as an object has it.
    std::unordered_map<std::uint32_t, std::weak_ptr<object_type>> types_;
    event_patterns patterns_;
    std::vector<monitor> monitors_;
    // Of the last event that was sent to an object.
    std::uint16_t event_seq_ = 0;
};

} // namespace busd
