/// What the fake bus tells its standing operations, and what it takes for a path or a pattern.
#pragma once

#include "client/bus_name.h"
#include "standing.h"

#include "tarn/bus.h"

#include <string>
#include <system_error>

namespace tarn::testing {

/// Whether `text` is the pattern, or begins with it where that ends in "*".
bool matches(const std::string& pattern, const std::string& text);

/// Whether it is the path of one object, as subscribe() and wait_for() take it.
bool is_path(const std::string& path);

bool is_pattern(const std::string& pattern);

void report_presence(standing& to, const bus::object_info& object, bool is_there);

standing::report change_report(bus::subscription what, const std::error_code& reason);

void report_registration(standing& to, const std::error_code& code);

} // namespace tarn::testing
