#include "whole_number.h"

#include <charconv>

namespace korvane_common {

std::optional<int> WholeNumberIn(std::string_view text, int least, int greatest) {
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  const bool is_whole = read.ec == std::errc() && read.ptr == end;
  return is_whole && number >= least && number <= greatest ? std::optional(number) : std::nullopt;
}

}  // namespace korvane_common
