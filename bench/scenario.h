/// What the rows about calls over the bus are: who is measured, under which load.
#pragma once

#include "options.h"

#include <string>
#include <vector>

namespace tarn::bench {

/// Which end of the calls the figures of a row belong to.
enum class role { calling, serving, both };

struct scenario {
    role measured = role::calling;
    unsigned long window = 1; ///< calls in flight at any time
    bool look_up_each = true;
    unsigned long pending = 0; ///< calls of the same caller, beside these, that are never answered

    std::string name() const;
    /// How many calls take long enough to measure by: up to a second.
    unsigned long calls(const options& chosen) const;
    /// Calls ahead of these, which fill caches and buffers.
    unsigned long first_calls(const options& chosen) const;
};

/// The rows of a run, those that the command line leaves out left out.
std::vector<scenario> scenarios(const options& chosen);

} // namespace tarn::bench
