/// The public parts of tarn::bus that do not depend on a connection.
#include "tarn/bus.h"

#include <array>
#include <cstddef>

namespace tarn {

bus::~bus() = default;

const char* bus::name_of(int message_type) {
    static constexpr std::array names{"hello",     "status",      "data",       "ping",
                                      "lookup",    "invoke",      "add_object", "remove_object",
                                      "subscribe", "unsubscribe", "notify",     "monitor"};
    const auto index = static_cast<std::size_t>(message_type);
    return message_type >= 0 && index < names.size() ? names[index] : "";
}

} // namespace tarn
