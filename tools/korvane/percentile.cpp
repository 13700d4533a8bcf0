#include "percentile.h"

#include <cmath>
#include <cstddef>

namespace korvane_tool {

double Percentile(const std::vector<double>& sorted, double part) {
  const auto last = static_cast<double>(sorted.size() - 1);
  return sorted[static_cast<std::size_t>(std::ceil(part * last))];
}

}  // namespace korvane_tool
