#pragma once

#include <cstddef>

#include "korvane_types.h"

namespace talvera::korvane {

struct SensorDataLength {
  Finger finger;
  std::size_t bytes;
};

/// Bytes in the raw array of each one-axis sensor.
inline constexpr SensorDataLength kSensorDataLengths[] = {
    {Finger::THUMB, 16},  {Finger::INDEX, 18}, {Finger::MIDDLE, 18},  {Finger::RING, 18},
    {Finger::LITTLE, 18}, {Finger::PALM, 78},  {Finger::DORSUM, 102},
};

/// 0 for a finger that isn't in the table.
constexpr std::size_t SensorDataLengthOf(Finger finger) {
  for (const auto& entry : kSensorDataLengths) {
    if (entry.finger == finger) return entry.bytes;
  }
  return 0;
}

}  // namespace talvera::korvane
