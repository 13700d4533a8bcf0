#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

#include "korvane_types.h"

namespace talvera::korvane {

/// The modes that a mixed command knows.
namespace mix_mode {
inline constexpr std::uint8_t kPositionCurrent = 4;
inline constexpr std::uint8_t kVelocityCurrent = 5;
inline constexpr std::uint8_t kPositionVelocityCurrent = 6;
}  // namespace mix_mode

/// At most so many targets go into one command that holds all three of each.
inline constexpr std::size_t kMaxFullTargets = 8;

/// A target of a MixCtrl. Where it lies in the packed record isn't aligned, so it is read through
/// a copy.
enum class MixTarget : std::size_t {
  kPosition = offsetof(MixCtrl, position),
  kVelocity = offsetof(MixCtrl, velocity),
  kCurrent = offsetof(MixCtrl, current),
};
static_assert(sizeof(std::optional<short>) == 4);

inline std::optional<short> TargetOf(const MixCtrl& record, MixTarget which) {
  std::optional<short> target;
  std::memcpy(&target,
              reinterpret_cast<const std::uint8_t*>(&record) + static_cast<std::size_t>(which),
              sizeof target);
  return target;
}

}  // namespace talvera::korvane
