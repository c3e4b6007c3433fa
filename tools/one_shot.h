/// The frame of the commands of tarn that connect, do one thing and end.
#pragma once

#include "options.h"

#include <tarn/bus.h>

#include <functional>
#include <string>
#include <system_error>

namespace tools {

/// To be called with the outcome. Ends the command.
using outcome_handler = std::function<void(const std::error_code&)>;

/// Connects, has `start` begin what is to be done, and returns the exit status, when the outcome is
/// there or the limit of `given` (30 s without one) has passed for all of it. Failures are reported
/// as those of `subject`.
int run_once(const options& given, const std::string& subject,
             const std::function<tarn::utils::link(tarn::bus&, const outcome_handler&)>& start);

} // namespace tools
