#pragma once

#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The small hand with four motors. It has no tactile sensors and no solver: the operations on
/// joint angles and gestures send nothing, write one line and return an empty result.
///
/// Requests have priorities in the queue that orders them: commands and the reading of positions,
/// velocities, control modes and thresholds go before reports, identity and everything else that
/// waits there. That matters only if several threads call, which the queue isn't safe for (see
/// EnableConcurrentCalls); after EnableConcurrentCalls, which switches the queue off, there are no
/// priorities. So a program that needs both, several threads and an order, orders its calls itself.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
///
/// Positions are 0 to 4096. Which motor moves what, and which end of its range is open, isn't known
/// to the library: move one motor by a few units, with the hand free, and look. (The simulated hand
/// opens towards 4096; a real one need not.)
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
///     SetHandGesture, GetAllJointPos,
///       SetAllActiveJointAngles,
///       GetAllActiveJointAngles, GetAllJointAngles              line, empty  -
///     GetVendorInfo, GetDeviceInfo                              empty        yes
///     SetDeviceId                                               none         no
class KORVANE_EXPORT KorvaneLumen : public KorvaneBase,
                                    public CanFactories<KorvaneLumen>,
                                    public CanBroadcasts<KorvaneLumen> {
 public:
  /// Writes one line and sends nothing: the model has no gestures.
  void SetHandGesture(int gesture) override;

  ~KorvaneLumen() override;
};

}  // namespace talvera::korvane
