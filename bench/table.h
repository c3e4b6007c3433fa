/// The tables of results, as Markdown.
#pragma once

#include "rows.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace tarn::bench {

/// Three digits, or the whole number where that is more.
std::string digits(double value);

/// The first line heads the columns; all lines are of one length.
void print_lines(std::ostream& out, const std::vector<std::vector<std::string>>& lines);

void print_table(std::ostream& out, const std::vector<row>& rows);

} // namespace tarn::bench
