/// The table's ratios as a bar chart, for a page.
#pragma once

#include "goals.h"
#include "rows.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace tarn::bench {

/// As SVG, with texts as texts and colours for a light page and a dark one. Bars are from 1.0 to
/// the median ratio of rates, to the right where libtarn is faster, with a thin line from the
/// lowest to the highest; the scale is logarithmic, so that twice as fast is as far from 1.0 as
/// half as fast. Goals are ratios to plain libubus. Rows with nothing to compare with are left out;
/// throws std::runtime_error when that leaves none.
void draw_chart(std::ostream& out, const std::vector<row>& rows, const goals& to_reach,
                const std::string& title);

} // namespace tarn::bench
