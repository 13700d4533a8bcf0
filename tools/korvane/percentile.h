#pragma once

#include <vector>

namespace korvane_tool {

/// The value below or at which that part of the values lies, of at least one in ascending order.
double Percentile(const std::vector<double>& sorted, double part);

}  // namespace korvane_tool
