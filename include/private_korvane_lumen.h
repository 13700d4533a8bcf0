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
/// four. The operations that ask for an axis take it up to 10 or 12, as PrivateKorvane says; the
/// hand refuses one that it lacks.
///
/// PrivateKorvane tells what the service operations do and return. The public operations are
/// carried out by service commands; KorvaneBase explains the words:
///
///     over CAN FD                                  bad          silent       waits
///     SetJointMotorPosi, GetJointMotorPosi         -1           -1           yes
///     SetAllJointMotorPosi, GetAllJointMotorPosi   empty        empty        yes
///     SetJointMotorVelo (1), SetAllJointMotorVelo  none         line         yes
///     GetJointMotorVelo, GetErrorReport (2),
///       GetTemperatureReport, GetCurrentReport     0            0            yes
///     GetAllJointMotorVelo, GetAllErrorReport (2),
///       GetAllTemperatureReport,
///       GetAllCurrentReport                                     four zeros   yes
///     SetControlMode, SetAllControlMode,
///       SetCurrentThreshold, SetAllCurrentThreshold,
///       MixCtrlJointMotor, SetHandGesture,
///       six report period setters                               always line  -
///     GetControlMode, GetCurrentThreshold                       always 0     -
///     GetAllControlMode, GetAllCurrentThreshold                 always empty -
///     SetAllActiveJointAngles                                   line, empty  -
///     GetAllActiveJointAngles, GetAllJointAngles,
///       GetAllJointPos                                          four zeros   -
///     GetVendorInfo (3)                                         empty        yes, twice
///     GetDeviceInfo (4)                                         own id       -
///     SetDeviceId (4)                                           none         -
///     UpdateFirmware                               callback(-1, 0, FAILED)   -
///
/// 1. One command for all motors: it stops the others.
/// 2. The hand tells one error at a time.
/// 3. The supply voltage is always 0. If only the second request fails the serial number is empty.
/// 4. Nothing is sent: the object tells, and keeps, its own `device_id`. Zeros while the link isn't
///    open. To give the hand another identifier, see PrivateKorvane::SetId.
///
/// Bad arguments are refused silently. GetRequestInterval returns 30 whatever was set.
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
