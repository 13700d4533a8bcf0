#pragma once

#include <string>

#include "can/can_bus_device.h"
#include "korvane_types.h"
#include "util/clock.h"

namespace talvera::korvane {

/// Asks every hand on a bus who it is, through an adapter of its own that lives only for the call,
/// and returns the first answer; all zero, after a line that begins with `prefix`, if there is
/// none within about 50 ms.
DeviceInfo QueryZlgBus(std::uint8_t adapter_index, std::uint8_t channel, const char* prefix);
DeviceInfo QueryZlgBus(const std::string& serial_number, std::uint8_t channel, const char* prefix);
DeviceInfo QuerySocketCanBus(const std::string& interface_name, const char* prefix);

/// Asks through an adapter that is open, and replaces its callbacks.
DeviceInfo QueryBus(CanBusDeviceBase& device, const char* prefix, Clock& clock = SystemClock());

}  // namespace talvera::korvane
