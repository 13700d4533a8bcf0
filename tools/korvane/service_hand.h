#pragma once

#include <korvane_open_service.h>

#include "tool.h"

namespace korvane_tool {

using talvera::korvane::ServiceHand;

/// The service interface of the hand that was named, or a ToolError whose status tells what is
/// there instead.
ServiceHand OpenService(const Tool& tool);

inline int AxesOf(const ServiceHand& hand) {
  return talvera::korvane::InfoOf(*hand.address.model).positions;
}
inline bool IsOnSerial(const ServiceHand& hand) { return hand.address.link == LinkKind::SERIAL; }

/// Runs `operation` with the service interface. See Checked.
template <class F>
auto CheckedService(const ServiceHand& hand, F&& operation) {
  return Checked(*hand.hand, [&](const KorvaneBase&) { return operation(hand.Service()); });
}

}  // namespace korvane_tool
