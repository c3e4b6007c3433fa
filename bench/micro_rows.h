/// The rows about one function each: encoding, decoding, posts.
#pragma once

#include "options.h"
#include "rows.h"

#include <vector>

namespace tarn::bench {

/// Measures and appends them. Throws std::runtime_error.
void measure_micro(const options& chosen, std::vector<row>& rows);

} // namespace tarn::bench
