#pragma once

#include "korvane_can_factories.h"
#include "korvane_export.h"
#include "korvane_lumen.h"
#include "private_korvane.h"

namespace talvera::korvane {

/// A KorvaneLumen with its service interface, over CAN FD.
///
/// One object of it at a time for each bus, one hand that answers it, and nothing else that speaks
/// to it there meanwhile: neither requests nor replies name the hand, and replies aren't told
/// apart. The `device_id` of an object is only what GetDeviceInfo returns.
///
/// The hand has four motors: lists of positions hold four values, and records and limits four
/// entries, but speeds and the lists of SetPosSpeedCurData ten, of which the hand takes the first
/// four. SetJointMotorVelo is one command for all motors and stops the others. Control modes,
/// thresholds, report periods, mixed control, tactile sensors and joint angles don't exist: their
/// operations send nothing, say so in one line, or return zeros. Bad arguments are refused
/// silently. GetRequestInterval returns 30 whatever was set, and there is no update over this
/// protocol.
class KORVANE_EXPORT PrivateKorvaneLumen : public KorvaneLumen,
                                           public PrivateKorvane,
                                           public CanFactories<PrivateKorvaneLumen> {
 public:
  using CanFactories<PrivateKorvaneLumen>::createHandByZlgcan;
  using CanFactories<PrivateKorvaneLumen>::createHandByHcan;
  using CanFactories<PrivateKorvaneLumen>::createHandSocketCan;

  ~PrivateKorvaneLumen() override;
};

}  // namespace talvera::korvane
