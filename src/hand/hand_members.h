#pragma once

#include <cstdint>

#include "korvane.h"
#include "util/models.h"

namespace talvera::korvane {

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
inline void SetMembers(Korvane& hand, Model model, std::uint8_t device_id, HandType type) {
  hand.model_code = CodeOf(model);
  StoreDeviceId(hand, device_id);
  hand.mirrored = type == HandType::LEFT;
}

}  // namespace talvera::korvane
