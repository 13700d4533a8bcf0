#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "korvane_types.h"
#include "private_korvane.h"
#include "protocol/service/service_command.h"

// What replies to service commands mean, and what mixed commands become there. The callers have
// looked at the lengths.

namespace talvera::korvane {

/// `count` values of 2 bytes.
template <class Value>
std::vector<Value> ServiceWords(const std::uint8_t* data, std::size_t count);

/// Four blocks of one value for each axis: two of 2 bytes, then two of 1 byte.
SetAllAxisPosResponse LoadAxisResponse(const std::uint8_t* data, std::size_t axes);
AxisLimitPos LoadAxisLimits(const std::uint8_t* data, std::size_t axes);
ProductSerialNumber LoadProductSerialNumber(const std::uint8_t* data);

/// Three groups of 3 bytes, then one byte.
FwVersion LoadFwVersion(const std::uint8_t* data);

/// A record for each sensor of each group that came in full: 1 to 3, 4 and 5, 6 and 7.
std::vector<TactileSensorData> SplitFingertipGroups(const std::vector<std::uint8_t>& a,
                                                    const std::vector<std::uint8_t>& b,
                                                    const std::vector<std::uint8_t>& c);

/// What one service command tells all axes at once.
struct ServiceTargets {
  std::vector<std::uint16_t> pos = std::vector<std::uint16_t>(kServiceAxes);
  std::vector<std::int16_t> speed = std::vector<std::int16_t>(kServiceAxes);
  std::vector<std::uint8_t> current = std::vector<std::uint8_t>(kServiceAxes);
};

/// The modes of mixed commands, and how many targets a command may hold in each; 0 for no such
/// mode.
std::size_t MaxMixedTargets(std::uint8_t mode);

/// Targets of axes that don't exist are left out, and so are values that aren't set. Of a current
/// only the high byte is sent; a value below 256 is none.
ServiceTargets ToServiceTargets(const std::vector<MixCtrl>& targets);

}  // namespace talvera::korvane
