#pragma once

#include <vector>

// Solvers count in ints, hands in 16-bit values.

namespace talvera::korvane {

inline std::vector<int> ToInts(const std::vector<short>& words) {
  return {words.begin(), words.end()};
}

/// What doesn't fit is cut to its low 16 bits.
inline std::vector<short> ToWords(const std::vector<int>& values) {
  std::vector<short> words;
  words.reserve(values.size());
  for (const int value : values) words.push_back(static_cast<short>(value));
  return words;
}

}  // namespace talvera::korvane
