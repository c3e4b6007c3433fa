/// tarn listen: prints events.
#include "commands.h"
#include "program.h"
#include "shape.h"
#include "stream.h"

#include <tarn/ext/json.h>

#include <algorithm>
#include <vector>

namespace tools {

namespace {

/// Whether every event that matches `narrow` matches `wide` too.
bool covers(const std::string& wide, const std::string& narrow) {
    const bool prefix = !wide.empty() && wide.back() == '*';
    return prefix ? narrow.compare(0, wide.size() - 1, wide, 0, wide.size() - 1) == 0
                  : wide == narrow;
}

/// The patterns without those that another covers. What is left has no event in common, so each is
/// printed once.
std::vector<std::string> without_covered(const std::vector<std::string>& patterns) {
    std::vector<std::string> kept;
    for (const auto& pattern : patterns) {
        const auto covered = [&](const std::string& other) {
            return covers(other, pattern);
        };
        if (std::none_of(kept.begin(), kept.end(), covered)) {
            kept.erase(
                std::remove_if(kept.begin(), kept.end(),
                               [&](const std::string& other) { return covers(pattern, other); }),
                kept.end());
            kept.push_back(pattern);
        }
    }
    return kept;
}

} // namespace

int listen(const options& given) {
    const auto patterns = given.words.empty() ? std::vector<std::string>{"*"} : given.words;
    for (const auto& pattern : patterns) {
        if (pattern.empty()) {
            throw usage_error("no event matches an empty pattern");
        }
    }
    stream events(given, "event", "events");
    std::vector<tarn::utils::scoped_link> links;
    for (const auto& pattern : without_covered(patterns)) {
        links.emplace_back(the_client().get_bus().listen(
            pattern,
            [&](const std::string& id, const tarn::bus::table& data) {
                events.print(shape(events.out(), id, tarn::ext::write_json(data), given.json));
            },
            events.delivery(pattern)));
    }
    return events.run();
}

} // namespace tools
