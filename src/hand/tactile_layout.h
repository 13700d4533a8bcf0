#pragma once

#include <cstddef>
#include <stdexcept>
#include <vector>

#include "korvane_types.h"
#include "link/diagnostics.h"

namespace talvera::korvane {

/// Whether `finger` is one of the enumeration up to `last`: an application may have cast it from
/// any number.
constexpr bool IsFinger(Finger finger, Finger last = Finger::DORSUM) {
  return finger >= Finger::THUMB && finger <= last;
}

/// Throws std::invalid_argument ("Invalid finger type") for anything else, which is recorded as the
/// failure of the operation on that hand.
inline void RequireFinger(Finger finger, const HandDiagnostics& hand) {
  if (IsFinger(finger)) return;
  const std::invalid_argument error("Invalid finger type");
  RecordThrown(hand, FailureKind::BAD_ARGUMENT, error.what());
  throw error;
}

/// Bytes in the summary of a one-axis sensor: that of a finger, and that of the palm or dorsum.
inline constexpr std::size_t kFingerSummaryBytes = 16;
inline constexpr std::size_t kPalmSummaryBytes = 25;

constexpr std::size_t SummaryBytesOf(Finger finger) {
  return finger == Finger::PALM || finger == Finger::DORSUM ? kPalmSummaryBytes
                                                            : kFingerSummaryBytes;
}

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

inline constexpr Finger kSensorOrder[] = {Finger::THUMB, Finger::INDEX,  Finger::MIDDLE,
                                          Finger::RING,  Finger::LITTLE, Finger::PALM,
                                          Finger::DORSUM};

/// The sensors of a hand in reading order, from THUMB to `last`. Applications may hold the
/// reference for as long as the process runs.
template <Finger last>
const std::vector<Finger>& SensorsUpTo() {
  static const auto* const order =
      new std::vector<Finger>(kSensorOrder, kSensorOrder + static_cast<int>(last));
  return *order;
}

}  // namespace talvera::korvane
