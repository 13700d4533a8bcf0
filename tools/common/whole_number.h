#pragma once

#include <optional>
#include <string_view>

namespace korvane_common {

/// The number that the whole text is, in digits alone; nothing if it is none, or none of `least` to
/// `greatest`.
std::optional<int> WholeNumberIn(std::string_view text, int least, int greatest);

}  // namespace korvane_common
