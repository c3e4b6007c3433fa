/// The ratios that rows are to reach, for the chart.
#pragma once

#include <istream>
#include <map>
#include <string>

namespace tarn::bench {

/// By the names of the rows.
using goals = std::map<std::string, double>;

/// Lines of a ratio and a name; those that begin with '#' are comments. Throws std::runtime_error
/// for any other.
goals read_goals(std::istream& in);

} // namespace tarn::bench
