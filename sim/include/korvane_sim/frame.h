#pragma once

#include <array>
#include <cstdint>

namespace talvera::korvane::sim {

/// One CAN FD frame. The identifier has 29 bits and no flag bits: values above 0x7FF are extended
/// identifiers. `len` is 0 to 64.
struct Frame {
  std::uint32_t id = 0;
  std::uint8_t len = 0;
  std::array<std::uint8_t, 64> data{};
};

}  // namespace talvera::korvane::sim
