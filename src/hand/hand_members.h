#pragma once

#include <cstdint>

#include "korvane.h"

namespace talvera::korvane {

/// Korvane::model_code of each model, which is also the product type that an adapter object holds.
namespace model_code {
inline constexpr std::uint8_t kBrisa = 0;
inline constexpr std::uint8_t kTessel = 1;
inline constexpr std::uint8_t kQuill = 2;
inline constexpr std::uint8_t kLumen = 3;
inline constexpr std::uint8_t kVanta = 4;
}  // namespace model_code

/// The id of a hand. A program may give the hand another one, by SetDeviceId or Reset or in the
/// member itself, while the receive thread compares it with that of a reply: so the id is kept
/// nowhere else, and the library reads and writes it atomically.
inline std::uint8_t DeviceIdOf(const Korvane& hand) {
  return __atomic_load_n(&hand.device_id, __ATOMIC_SEQ_CST);
}
inline void StoreDeviceId(Korvane& hand, std::uint8_t device_id) {
  __atomic_store_n(&hand.device_id, device_id, __ATOMIC_SEQ_CST);
}

/// Sets the common members of a hand, but for `connected`.
inline void SetMembers(Korvane& hand, std::uint8_t model_code, std::uint8_t device_id,
                       HandType type) {
  hand.model_code = model_code;
  StoreDeviceId(hand, device_id);
  hand.mirrored = type == HandType::LEFT;
}

}  // namespace talvera::korvane
