/// The reports and the patterns of the fake bus.
#include "fake_bus_reports.h"

#include <optional>

namespace tarn::testing {

bool matches(const std::string& pattern, const std::string& text) {
    return !pattern.empty() && pattern.back() == '*'
               ? text.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0
               : text == pattern;
}

bool is_path(const std::string& path) {
    return !path.empty() && path.back() != '*' && !has_nul(path);
}

bool is_pattern(const std::string& pattern) {
    return !pattern.empty() && !has_nul(pattern);
}

void report_presence(standing& to, const bus::object_info& object, bool is_there) {
    const auto what = is_there ? bus::presence::appeared : bus::presence::gone;
    to.add_change(object.path, is_there ? std::optional(object.id) : std::nullopt,
                  [what, path = object.path, id = object.id](const standing_handlers& handlers) {
                      if (handlers.presence) {
                          handlers.presence(what, path, id);
                      }
                  });
}

standing::report change_report(bus::subscription what, const std::error_code& reason) {
    return [what, reason](const standing_handlers& handlers) {
        if (handlers.change) {
            handlers.change(what, reason);
        }
    };
}

void report_registration(standing& to, const std::error_code& code) {
    to.in_place = !code;
    to.add([code](const standing_handlers& handlers) {
        if (handlers.how.on_registered) {
            handlers.how.on_registered(code);
        }
    });
}

} // namespace tarn::testing
