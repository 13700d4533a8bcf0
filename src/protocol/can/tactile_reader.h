#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "protocol/can/can_public_engine.h"

// One-axis tactile readings. A raw reply comes in several frames, each with two bytes that belong
// to the transport and up to 62 bytes of sensor data.

namespace talvera::korvane {

/// The summary of one sensor; all zero on failure. Throws std::invalid_argument for a finger
/// outside 1 to 7.
std::vector<std::uint8_t> ReadTactileSummary(const CanPublicEngine& engine, Finger finger);

/// The raw array of one sensor, `length()` bytes unless the hand is silent or its reply is cut off.
/// An application may have overridden `length`: what it throws is logged like any other failure.
TactileSensorData ReadTactileRaw(const CanPublicEngine& engine, Finger finger,
                                 const std::function<std::size_t()>& length);

/// All that the hand sends of all its sensors, in reading order; nothing if it is silent, for which
/// `no_data` is logged unless it is empty.
std::optional<std::vector<std::uint8_t>> ReadTactileStream(const CanPublicEngine& engine,
                                                           const char* no_data);

}  // namespace talvera::korvane
