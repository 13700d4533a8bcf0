#include <charconv>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "quantities.h"
#include "tool.h"

namespace korvane_tool {

std::optional<double> NumberIn(const std::string& text) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  const bool whole = result.ec == std::errc() && result.ptr == end;
  return whole ? std::optional(number) : std::nullopt;
}

std::vector<std::string> SplitAtCommas(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t comma = 0; comma != std::string::npos; begin = comma + 1) {
    comma = text.find(',', begin);
    parts.push_back(text.substr(begin, comma - begin));
  }
  return parts;
}

Json NumberOf(double value) {
  if (std::isfinite(value) && value == std::trunc(value) && std::abs(value) < 1e15) {
    return static_cast<std::int64_t>(value);
  }
  return value;
}

Json NumbersOf(const std::vector<double>& values) {
  Json numbers = Json::array();
  for (const double value : values) numbers.push_back(NumberOf(value));
  return numbers;
}

}  // namespace korvane_tool
