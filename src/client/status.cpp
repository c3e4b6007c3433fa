/// Error codes to ubus status numbers and back.
#include "client/client_impl.h"

#include "tarn/error.h"

namespace tarn {

int client_impl::to_ubus_msg_status(const std::error_code& code) {
    if (!code) {
        return 0;
    }
    constexpr int unknown = static_cast<int>(error::msg::unknown_error);
    if (code.category() != error::msg_category::get_inst()) {
        return unknown;
    }
    const bool carried =
        code.value() > 0 && code.value() <= static_cast<int>(error::msg::connection_failed);
    return carried ? code.value() : unknown;
}

std::error_code client_impl::to_msg_error(int status) {
    const bool known = status >= 0 && status <= static_cast<int>(error::msg::system_error);
    return known ? static_cast<error::msg>(status) : error::msg::unknown_error;
}

} // namespace tarn
