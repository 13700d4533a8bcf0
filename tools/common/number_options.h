#pragma once

#include <string>

// Options that are numbers, where CLI11 is too generous. Each returns what is wrong with the text
// of one, or nothing, as CLI11 wants it of a validator.

namespace korvane_common {

/// Refuses "nan" and "inf": a range lets NaN pass, as it lies beyond no limit.
std::string NeedFinite(const std::string& text);

/// Refuses what isn't decimal digits alone, and takes leading zeros away: CLI11 would take "0x10"
/// for 16 and "010" for 8.
std::string NeedDecimal(std::string& text);

}  // namespace korvane_common
