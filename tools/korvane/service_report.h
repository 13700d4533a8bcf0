#pragma once

#include <string>

#include "service_hand.h"
#include "tool.h"

namespace korvane_tool {

/// All that the service interface tells, each reading under a key of its own; what failed stands
/// in "failures".
Json ServiceReport(const ServiceHand& hand);

/// The same for people.
std::string TextOfReport(const Json& report);

/// The serial number that the hand keeps.
Outcome<std::string> SerialNumberOf(const ServiceHand& hand);

}  // namespace korvane_tool
