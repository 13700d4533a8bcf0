#include "motor_errors.h"

#include <array>

namespace korvane_common {

std::string ErrorNames(unsigned errors, talvera::korvane::LinkKind link) {
  if (link == talvera::korvane::LinkKind::SERIAL) return errors != 0 ? "error" : "";
  constexpr std::array<const char*, 5> kNames = {"stalled", "overheated", "overcurrent",
                                                 "motor fault", "communication fault"};
  static_assert(kNamedErrors == (1U << kNames.size()) - 1);
  std::string names;
  for (unsigned bit = 0; bit < 16; ++bit) {
    if ((errors >> bit & 1U) == 0) continue;
    names += names.empty() ? "" : ", ";
    names += bit < kNames.size() ? kNames[bit] : "bit " + std::to_string(bit);
  }
  return names;
}

}  // namespace korvane_common
