#pragma once

#include <korvane.h>
#include <korvane_open.h>
#include <korvane_types.h>

#include <cstdint>
#include <vector>

// Touch of any hand, on any link, one byte a cell. A Tessel's fingertips are opaque bytes.

namespace korvane_common {

/// "thumb" and the like.
const char* FingerName(talvera::korvane::Finger finger);

/// The fingers that have a sensor, in the hand's order; none for a model without touch. Asks
/// nobody.
std::vector<talvera::korvane::Finger> SensorsOf(const talvera::korvane::KorvaneBase& hand);

/// The cells of one sensor: its whole array, or the hand's summary where the link cuts arrays
/// short. Nothing where such a link would cut an array of which there is no summary.
std::vector<std::uint8_t> TouchOf(const talvera::korvane::KorvaneBase& hand,
                                  talvera::korvane::LinkKind link, talvera::korvane::Finger finger);

/// The same of all sensors that the link lets through, in one request where the hand has one.
std::vector<talvera::korvane::TactileSensorData> TouchOf(const talvera::korvane::KorvaneBase& hand,
                                                         talvera::korvane::LinkKind link);

}  // namespace korvane_common
