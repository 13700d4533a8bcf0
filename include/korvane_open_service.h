#pragma once

#include <memory>
#include <string>

#include "korvane_open.h"
#include "private_korvane.h"

/// The service interface of a hand by its address.
///
/// Everything here only reads from hands: nothing moves, and no setting changes.
namespace talvera::korvane {

/// A hand with its service interface. On CAN the public protocol is spoken by an object of its own,
/// on a serial port one object speaks both.
struct ServiceHand {
  HandAddress address;  ///< With model and id.
  /// Speaks the public protocol on CAN; null on a serial port. On a ZLG adapter the end of either
  /// object stops the channel: keep this one as long as the other.
  std::unique_ptr<KorvaneBase> face;
  /// Speaks the service interface: a PrivateKorvaneBrisa or a PrivateKorvaneLumen.
  std::unique_ptr<KorvaneBase> hand;

  /// What the public protocol is spoken with.
  KorvaneBase& Public() const { return face ? *face : *hand; }
  /// The service interface of `hand`.
  PrivateKorvane& Service() const { return dynamic_cast<PrivateKorvane&>(*hand); }
};

/// Opens the service interface of a hand once it has answered there as the model that the address
/// says, or as the one that there is.
///
/// Requests of the service interface name no hand: all that have one take them for theirs. So it
/// first looks for all hands of a CAN bus, as FindHands does, and refuses if several of them have a
/// service interface. It can't look on a ZLG adapter on which this process has hands, which that
/// would stop, and then opens nothing there: let them go first.
///
/// | fails with | when |
/// |---|---|
/// | what OpenHand fails with | the hand doesn't answer, isn't that model, or is one of several |
/// | NOT_SUPPORTED | the model has no service interface (ModelInfo::has_service) |
/// | NO_LINK | this process has hands on the ZLG adapter |
/// | REFUSED | several hands would take the requests, or another one answers them |
///
/// The operation of the failure is "OpenServiceHand". Takes nine tenths of a second longer than
/// OpenHand on CAN. Time-outs are those of every hand, 50 ms at first; a hand that stores its
/// settings may take longer (SetFrameRecvTimeout). Any thread.
KORVANE_EXPORT Outcome<ServiceHand> OpenServiceHand(const HandAddress& address);
/// The same for a text.
KORVANE_EXPORT Outcome<ServiceHand> OpenServiceHand(const std::string& address);

}  // namespace talvera::korvane
