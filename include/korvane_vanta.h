#pragma once

#include <cstdint>

#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The hand with twenty motors. It has no tactile sensors, and its kinematics isn't known:
/// SetAllActiveJointAngles returns nothing and GetAllActiveJointAngles and GetAllJointAngles twenty
/// zeros, each after one line; GetAllJointPos returns its argument; SetHandGesture does nothing.
///
/// What is read of the whole hand may hold more than twenty values: the bus pads forty bytes to
/// forty-eight. The motors' values come first.
///
/// A mixed command in mode 4 or 5 takes at most 12 targets, as many as one frame holds; one with
/// more is refused.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
///
/// Positions are taken to be 0 to 4096, as those of a KorvaneBrisa; the protocol doesn't tell. Nor
/// does it tell which motor moves what, and which end of its range is open: move one motor by a few
/// units, with the hand free, and look. (The simulated hand opens towards 4096; a real one need
/// not.)
///
/// What the operations return when they fail; KorvaneBase explains the words:
///
///     over CAN FD                                  bad          silent       waits
///     SetJointMotorPosi                            -1           -1           yes
///     GetJointMotorPosi, GetJointMotorVelo,
///       GetCurrentThreshold, GetCurrentReport      -1           0            yes
///     GetTemperatureReport                         65535        0            yes
///     GetErrorReport                               0            0            yes
///     GetControlMode                               10           10           yes
///     SetAllJointMotorPosi                         empty        empty        yes
///     GetAllJointMotorPosi, GetAllJointMotorVelo,
///       GetAllControlMode, GetAllCurrentThreshold,
///       GetAllErrorReport, GetAllTemperatureReport,
///       GetAllCurrentReport                                     empty        yes
///     SetJointMotorVelo, SetAllJointMotorVelo,
///       SetCurrentThreshold,
///       SetAllCurrentThreshold, MixCtrlJointMotor  line         line         yes
///     SetControlMode, SetAllControlMode            line         none         no
///     six report period setters                    line         line         -
///     SetAllActiveJointAngles                                   line, empty  -
///     GetAllActiveJointAngles, GetAllJointAngles                line, zeros  -
///     GetAllJointPos, SetHandGesture                            none         -
///     GetVendorInfo, GetDeviceInfo                              empty        yes
///     SetDeviceId                                               none         no
class KORVANE_EXPORT KorvaneVanta : public KorvaneBase,
                                    public CanFactories<KorvaneVanta>,
                                    public CanBroadcasts<KorvaneVanta> {
 public:
  /// Makes the object one for that id and that side; nothing is sent. The factories do so. Not
  /// while another call runs.
  void Reset(std::uint8_t device_id, HandType hand);

  ~KorvaneVanta() override;
};

}  // namespace talvera::korvane
