/// Which objects receive which events.
#include "event_patterns.h"

namespace busd {

void event_patterns::add(object& to, std::string_view pattern) {
    const bool prefix = !pattern.empty() && pattern.back() == '*';
    if (prefix) {
        pattern.remove_suffix(1);
    }
    receiver& known = receivers_.try_emplace(&to, receiver{&to, {}, 0}).first->second;
    if (known.own.count({pattern, prefix}) == 0) {
        const auto at = patterns_.emplace(pattern, entry{&known, prefix});
        known.own.emplace(std::make_pair(std::string_view(at->first), prefix), at);
    }
}

void event_patterns::remove(const object& leaving) {
    const auto known = receivers_.find(&leaving);
    if (known == receivers_.end()) {
        return;
    }
    for (const auto& [text, at] : known->second.own) {
        patterns_.erase(at);
    }
    receivers_.erase(known);
}

std::vector<object*> event_patterns::matching(std::string_view id) {
    std::vector<object*> found;
    ++events_;
    // No text that is sorted behind the id begins it.
    const auto end = patterns_.upper_bound(id);
    for (auto at = patterns_.begin(); at != end; ++at) {
        const auto& [text, pattern] = *at;
        const bool matches = pattern.prefix ? id.compare(0, text.size(), text) == 0 : id == text;
        if (matches && pattern.to->last != events_) {
            pattern.to->last = events_;
            found.push_back(pattern.to->who);
        }
    }
    return found;
}

} // namespace busd
