/// The table of results, as Markdown.
#pragma once

#include "sample.h"

#include <iosfwd>
#include <vector>

namespace tarn::bench {

void print_table(std::ostream& out, const std::vector<row>& rows);

} // namespace tarn::bench
