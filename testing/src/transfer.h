/// What becomes of values, statuses and policies on their way over a bus, for the fakes.
#pragma once

#include "tarn/blob.h"
#include "tarn/client.h"
#include "tarn/error.h"

#include "bus.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tarn::testing {

/// The fields as they arrive at the other end of the bus. Throws what encoding and decoding throw.
inline blob::table transferred(const blob::table& fields) {
    blob::buf message(fields);
    return blob::utils::to_table(message.native()->head);
}

/// The same for a method with a policy.
inline blob::table transferred(const blob::table& fields, const client::method_policy& policy) {
    blob::buf message(fields);
    return policy.empty() ? blob::utils::to_table(message.native()->head)
                          : blob::utils::to_table(message.native()->head, policy);
}

/// A status as it arrives at the other end.
inline std::error_code transferred(const std::error_code& status) {
    if (!status) {
        return error::msg::success;
    }
    const bool carried = status.category() == error::msg_category::get_inst() &&
                         status.value() > 0 &&
                         status.value() <= static_cast<int>(error::msg::connection_failed);
    return carried ? status : error::msg::unknown_error;
}

/// The fields that a test makes up. Throws std::logic_error, which names `what`, when they have no
/// encoding.
inline blob::table transferred_for_test(const blob::table& fields, const std::string& what) {
    try {
        return transferred(fields);
    } catch (const std::exception&) {
        throw std::logic_error("tarn::testing: " + what + " has no encoding");
    }
}

inline std::shared_ptr<utils::event_loop>
existing_loop(const std::weak_ptr<utils::event_loop>& loop) {
    if (auto existing = loop.lock()) {
        return existing;
    }
    throw std::logic_error("tarn::testing::fake_client: its event loop has been destroyed");
}

} // namespace tarn::testing
