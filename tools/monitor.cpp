/// tarn monitor: prints every message that passes the bus, in the shape of ubus.
#include "commands.h"
#include "program.h"
#include "stream.h"

#include <tarn/ext/json.h>

#include <algorithm>
#include <set>
#include <string>

namespace tools {

namespace {

/// Types of messages are numbered from 0 on; those beyond are not known.
constexpr int types_looked_at = 64;

/// The attributes in the order in which the protocol numbers them, which is that of ubus.
std::string attributes_of(const tarn::bus::message& message) {
    static const char* const names[] = {"status",      "objpath", "objid",  "method", "objtype",
                                        "signature",   "data",    "target", "active", "no_reply",
                                        "subscribers", "user",    "group"};
    std::string text;
    for (const char* const name : names) {
        const auto [first, last] = message.attributes.equal_range(name);
        for (auto attribute = first; attribute != last; ++attribute) {
            text += (text.empty() ? "" : ",") + quoted(name) + ':' +
                    tarn::ext::write_json(attribute->second);
        }
    }
    return '{' + text + '}';
}

std::string type_of(const tarn::bus::message& message) {
    const std::string name = tarn::bus::name_of(message.type);
    return name.empty() ? std::to_string(message.type) : name;
}

std::string json_of(const tarn::bus::message& message) {
    return "{\"sent\":" + std::string(message.sent ? "true" : "false") + ",\"client\":\"" +
           hex_id(message.client) + "\",\"peer\":\"" + hex_id(message.peer) +
           "\",\"seq\":" + std::to_string(message.seq) + ",\"type\":" + quoted(type_of(message)) +
           ",\"message\":" + attributes_of(message) + '}';
}

std::string line_of(const tarn::bus::message& message, const output& out) {
    constexpr std::size_t width = 14;
    const std::string type = type_of(message);
    const std::string gap(width - std::min(width, type.size()), ' ');
    return std::string(message.sent ? "->" : "<-") + ' ' + hex_id(message.client) + " #" +
           hex_id(message.peer) + ' ' + gap + out.paint(colour::name, type) + ": " +
           attributes_of(message);
}

/// The numbers of the types with these names.
std::set<int> numbers_of(const std::vector<std::string>& names) {
    std::set<int> numbers;
    for (const auto& name : names) {
        int number = 0;
        while (number < types_looked_at && (name.empty() || name != tarn::bus::name_of(number))) {
            ++number;
        }
        if (number == types_looked_at) {
            throw usage_error("there is no type of message '" + name + "'");
        }
        numbers.insert(number);
    }
    return numbers;
}

} // namespace

int monitor(const options& given) {
    if (!given.words.empty()) {
        throw usage_error("monitor takes [-m TYPE]... [-M r|t] [-s] [-T] [-v] [-t SECONDS]");
    }
    const std::set<int> types = numbers_of(given.message_types);
    stream messages(given, "message", "messages");
    const auto wanted = [&](const tarn::bus::message& message) {
        return (types.empty() || types.count(message.type) != 0) &&
               (given.traffic.empty() || (given.traffic == "t") == message.sent);
    };
    const tarn::utils::scoped_link link = the_client().get_bus().monitor(
        [&](const tarn::bus::message& message) {
            if (wanted(message)) {
                messages.print(given.json ? json_of(message) : line_of(message, messages.out()));
            }
        },
        messages.delivery("monitor"));
    return messages.run();
}

} // namespace tools
