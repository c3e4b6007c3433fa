/// The rows about calls over the bus, as caller and as service.
#pragma once

#include "options.h"
#include "rows.h"

#include <vector>

namespace tarn::bench {

/// Measures and appends them. Throws std::runtime_error, also when a call was not answered
/// correctly.
void measure_bus(const options& chosen, std::vector<row>& rows);

} // namespace tarn::bench
