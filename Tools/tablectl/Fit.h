#pragma once

#include "Chart.h"

#include <string>

namespace tablectl {

// Whether a row was read where the layout says it is. When its colours fit another place of the chart much
// better (a row or columns further on, the chart turned or mirrored), a sentence that says which; "" when
// they do not, and for a layout without a reference.
std::string misplacement(const Row& row, const Color::ChartLayout& layout);

} // namespace tablectl
