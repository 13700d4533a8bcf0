#include "number_options.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include "whole_number.h"

namespace korvane_common {

std::string NeedFinite(const std::string& text) {
  const bool is_finite = std::isfinite(std::strtod(text.c_str(), nullptr));
  return is_finite ? "" : text + " is no finite number";
}

std::string NeedDecimal(std::string& text) {
  using Limits = std::numeric_limits<int>;
  const auto number = WholeNumberIn(text, Limits::min(), Limits::max());
  if (!number) return text + " is no whole number in decimal digits that fits here";
  text = std::to_string(*number);
  return "";
}

}  // namespace korvane_common
