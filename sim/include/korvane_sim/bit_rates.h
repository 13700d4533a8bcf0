#pragma once

#include <chrono>
#include <cstdint>

#include "korvane_sim/export.h"
#include "korvane_sim/frame.h"

namespace talvera::korvane::sim {

/// Bits a second of a CAN FD bus. The hands run at what stands here.
struct BitRates {
  std::uint32_t arbitration = 1000000;
  std::uint32_t data = 5000000;  ///< That of arbitration too where bit rates aren't switched.
};

/// How long a frame takes on the wire, with its stuff bits and the pause behind it: for 64 bytes
/// and a 29-bit identifier 158 to 192 µs, by what the bits are. `frame.len` must be one of CAN FD.
KORVANE_SIM_EXPORT std::chrono::nanoseconds FrameTime(const Frame& frame, const BitRates& rates);

}  // namespace talvera::korvane::sim
