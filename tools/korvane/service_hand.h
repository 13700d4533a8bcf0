#pragma once

#include <private_korvane.h>

#include <cstdint>
#include <memory>

#include "tool.h"

namespace korvane_tool {

/// A hand with its service interface. On CAN the public protocol is an object of its own, on a
/// serial port one object speaks both.
struct ServiceHand {
  HandAddress address;  ///< With model and id.
  /// On a ZLG adapter the end of either object stops the channel: this one stays as long as the
  /// other. Null on a serial port.
  std::unique_ptr<KorvaneBase> face;
  std::unique_ptr<KorvaneBase> hand;

  bool OnSerial() const { return address.link == LinkKind::SERIAL; }
  int Axes() const { return talvera::korvane::InfoOf(*address.model).positions; }
  /// What the public protocol is spoken with.
  KorvaneBase& Public() const { return face ? *face : *hand; }
};

/// The service interface of the hand that was named, once it has answered there as the model that
/// it is. Refuses where several hands would take the requests for theirs, as these name none.
ServiceHand OpenService(const Tool& tool);

/// Runs `operation` with the service interface. See Checked.
template <class F>
auto CheckedService(const ServiceHand& hand, F&& operation) {
  return Checked(*hand.hand, [&](KorvaneBase& h) {
    return operation(dynamic_cast<talvera::korvane::PrivateKorvane&>(h));
  });
}

}  // namespace korvane_tool
