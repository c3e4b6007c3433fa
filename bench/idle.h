/// What a client costs that has nothing to do.
#pragma once

#include "options.h"

#include <iosfwd>

namespace tarn::bench {

/// Connects a client of either side, with one object published, and prints the system calls and the
/// context switches of its process over ten seconds (one in the quick form). Throws
/// std::runtime_error, also if the counting does not work.
void measure_idle(const options& chosen, std::ostream& out);

} // namespace tarn::bench
