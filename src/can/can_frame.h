#pragma once

#include <array>
#include <cstdint>

namespace talvera::korvane {

/// The largest payload of a CAN FD frame.
inline constexpr std::uint8_t kMaxPayload = 64;

/// The bits of an identifier that travel on the bus.
inline constexpr std::uint32_t kCanIdMask = 0x1FFFFFFF;

/// The greatest identifier that goes out as a standard (11-bit) frame, on every adapter.
inline constexpr std::uint32_t kMaxStandardId = 0x7FF;

/// Identifier byte 2: what the frame is about.
constexpr std::uint8_t MessageType(std::uint32_t can_id) {
  return static_cast<std::uint8_t>(can_id >> 16);
}

/// CAN FD payload lengths by data length code.
inline constexpr std::array<std::uint8_t, 16> kDlcToDataLen = {0, 1,  2,  3,  4,  5,  6,  7,
                                                               8, 12, 16, 20, 24, 32, 48, 64};

/// One CAN FD frame. `data` past `len` is zero in a received frame.
struct CanfdFrame {
  std::uint32_t can_id = 0;
  std::uint8_t len = 0;
  std::uint8_t data[kMaxPayload] = {};
};

}  // namespace talvera::korvane
