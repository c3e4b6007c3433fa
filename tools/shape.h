/// How an event and a notification are printed, for tarn listen and tarn subscribe.
#pragma once

#include "output.h"

#include <tarn/blob/attr.h>

#include <string>

namespace tools {

/// `name` and its data as ubus prints them, { "up": {"lan":1} }; as JSON without spaces if `json`.
std::string shape(const output& out, const std::string& name, const std::string& data, bool json);

} // namespace tools
