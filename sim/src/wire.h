#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "korvane_sim/frame.h"

namespace talvera::korvane::sim {

using Bytes = std::vector<std::uint8_t>;

/// Payload lengths that CAN FD has, by data length code.
inline constexpr std::array<std::uint8_t, 16> kFdLengths{0, 1,  2,  3,  4,  5,  6,  7,
                                                         8, 12, 16, 20, 24, 32, 48, 64};

/// Data length code of the shortest CAN FD frame that holds `length` bytes; 15 for more than 48.
inline std::uint8_t DlcOf(std::size_t length) {
  const auto it = std::find_if(kFdLengths.begin(), kFdLengths.end() - 1,
                               [length](std::uint8_t fd) { return fd >= length; });
  return static_cast<std::uint8_t>(it - kFdLengths.begin());
}

inline std::uint8_t PaddedLength(std::size_t length) { return kFdLengths[DlcOf(length)]; }

/// The commands of an update on a serial line and of the service protocol.
inline constexpr std::uint8_t kUpdateDataCommand = 0xF0;
inline constexpr std::uint8_t kUpdateRequestCommand = 0xF1;
inline constexpr std::uint8_t kUpdateReplyCommand = 0xF2;

inline constexpr bool IsExtended(std::uint32_t id) { return id > 0x7FF; }

inline std::uint16_t LoadU16(const std::uint8_t* at) {
  return static_cast<std::uint16_t>(at[0] | at[1] << 8);
}

inline std::uint32_t LoadU32(const std::uint8_t* at) {
  return LoadU16(at) | static_cast<std::uint32_t>(LoadU16(at + 2)) << 16;
}

inline void StoreU16(std::uint8_t* at, std::uint16_t value) {
  at[0] = static_cast<std::uint8_t>(value);
  at[1] = static_cast<std::uint8_t>(value >> 8);
}

inline void StoreU32(std::uint8_t* at, std::uint32_t value) {
  StoreU16(at, static_cast<std::uint16_t>(value));
  StoreU16(at + 2, static_cast<std::uint16_t>(value >> 16));
}

}  // namespace talvera::korvane::sim
