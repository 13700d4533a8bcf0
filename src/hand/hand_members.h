#pragma once

#include <cstdint>

#include "korvane.h"

namespace talvera::korvane {

/// Korvane::model_code of each model, which is also the product type that adapters are told.
namespace model_code {
inline constexpr std::uint8_t kBrisa = 0;
inline constexpr std::uint8_t kTessel = 1;
inline constexpr std::uint8_t kQuill = 2;
inline constexpr std::uint8_t kLumen = 3;
inline constexpr std::uint8_t kVanta = 4;
}  // namespace model_code

/// Sets what a hand is, as its common members tell it.
inline void SetMembers(Korvane& hand, std::uint8_t model_code, std::uint8_t device_id,
                       HandType type) {
  hand.model_code = model_code;
  hand.device_id = device_id;
  hand.mirrored = type == HandType::LEFT;
}

}  // namespace talvera::korvane
