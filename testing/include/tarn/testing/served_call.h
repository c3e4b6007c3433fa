/// What the fakes answer, and what they are answered.
#pragma once

#include "tarn/blob/attr.h"

#include <list>
#include <optional>
#include <system_error>
#include <utility>

namespace tarn::testing {

/// What a scripted call, or a subscriber's answer, ends with.
struct outcome {
    /// The data replies, in order.
    std::list<blob::table> replies = {};
    /// The status of the callee.
    std::error_code status = {};
    /// Whether the callee never completes the call, which then waits for its time limit, for the
    /// end of the connection or for cancel().
    bool never = false;

    /// One reply and success.
    static outcome reply(blob::table fields) { return {{std::move(fields)}, {}, false}; }
    /// No reply and this status.
    static outcome failure(const std::error_code& status) { return {{}, status, false}; }
    /// The callee never completes the call (see `never`).
    static outcome no_answer() { return {{}, {}, true}; }
};

/// A call of an object that the code under test has published, or a notification that it gets, and
/// what has become of it.
struct served_call {
    /// The data replies so far, in order.
    std::list<blob::table> replies;
    /// The status, once the call is completed: as it would reach the caller.
    std::optional<std::error_code> status;
};

} // namespace tarn::testing
