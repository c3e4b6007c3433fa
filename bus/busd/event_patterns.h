/// Which objects receive which events: the patterns that they have registered.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "object.h"

namespace busd {

class event_patterns {
public:
    /// Events whose id is `pattern`, or begins with what stands before its final `*`, go to `to`.
    void add(object& to, std::string_view pattern);
    /// No event goes to the object any more.
    void remove(const object& leaving);
    /// The objects that an event goes to, each once, in the order of what their patterns begin
    /// with.
    std::vector<object*> matching(std::string_view id);

private:
    struct receiver;
    struct entry {
        receiver* to;
        bool prefix;
    };
    using positions = std::multimap<std::string, entry, std::less<>>;
    struct receiver {
        object* who;
        // By text and kind; a repeated pattern changes nothing.
        std::map<std::pair<std::string_view, bool>, positions::iterator> own;
        // The last event that has been matched with it.
        std::uint64_t last = 0;
    };

    positions patterns_;
    std::unordered_map<const object*, receiver> receivers_;
    std::uint64_t events_ = 0;
};

} // namespace busd
