#pragma once

#include <memory>
#include <string>

#include "korvane_brisa.h"
#include "korvane_export.h"
#include "private_korvane.h"

namespace talvera::korvane {

/// A KorvaneBrisa with its service interface, over CAN FD or on a serial port.
///
/// One object of it at a time for each bus or port, one hand that answers it, and nothing else that
/// speaks to it there meanwhile: neither requests nor replies name the hand, and replies aren't
/// told apart. The `device_id` of an object over CAN FD is only what GetDeviceInfo returns.
///
/// PrivateKorvane tells what the service operations do and return on each link. On a serial port
/// the public operations are those of KorvaneBrisa there. Over CAN FD they are carried out by
/// service commands, with other failure values than those of KorvaneBrisa; KorvaneBase explains the
/// words:
///
///     over CAN FD                                  bad          silent       waits
///     SetJointMotorPosi, GetJointMotorPosi         -1           -1           yes
///     SetAllJointMotorPosi, GetAllJointMotorPosi   empty        empty        yes
///     SetAllActiveJointAngles                      empty        empty        yes
///     GetAllActiveJointAngles, GetAllJointAngles                empty        yes
///     GetAllJointPos                               empty                     -
///     SetHandGesture                                            line         yes
///     SetControlMode, SetCurrentThreshold (1)      none         line         yes
///     SetAllControlMode, SetAllCurrentThreshold    none         ten lines    yes, 10 times
///     GetControlMode, GetCurrentThreshold                       always 0     -
///     GetAllControlMode, GetAllCurrentThreshold                 ten zeros    -
///     MixCtrlJointMotor (2)                        none         line         yes
///     SetJointMotorVelo, SetAllJointMotorVelo,
///       six report period setters                               none         -
///     GetJointMotorVelo, GetErrorReport,
///       GetTemperatureReport, GetCurrentReport                  always 0     -
///     GetAllJointMotorVelo, GetAllErrorReport,
///       GetAllTemperatureReport,
///       GetAllCurrentReport                                     always empty -
///     GetTactileSensorData,
///       GetAllTactileSensorDataRaw                              always empty -
///     GetTactileSensorDataRaw                                   no data      -
///     GetAllTactileSensorData (3)                               empty        yes, 3 times
///     GetVendorInfo (4)                                         empty        yes, twice
///     GetDeviceInfo (5)                                         own id       -
///     SetDeviceId (5)                                           none         -
///
/// 1. A threshold is held to 0 to 3250.
/// 2. One command for all axes: position, velocity and current of whatever isn't named are sent as
///    0. Of the current only the high byte is sent. A target that isn't set is 0; nothing is
///    thrown. A mode other than 4 to 6 gives a line.
/// 3. A group of sensors (1 to 3, 4 and 5, 6 and 7) that wasn't read is left out.
/// 4. The supply voltage is always 0. If only the second request fails the serial number is empty.
/// 5. Nothing is sent: the object tells, and keeps, its own `device_id`. Zeros while the link isn't
///    open. To give the hand another identifier, see PrivateKorvane::SetId.
///
/// There GetRequestInterval returns 30 whatever was set, and ShowDataDetails leaves the solver
/// alone. The callback of UpdateFirmware gets (-1, 0, FAILED) while the link isn't open, counts
/// acknowledged packets from 1, and gets FINISH_ACKNOWLEDGED before the hand is asked to finish;
/// all of it runs on the caller's thread.
class KORVANE_EXPORT PrivateKorvaneBrisa : public KorvaneBrisa,
                                           public PrivateKorvane,
                                           public CanFactories<PrivateKorvaneBrisa> {
 public:
  using CanFactories<PrivateKorvaneBrisa>::createHandByZlgcan;
  using CanFactories<PrivateKorvaneBrisa>::createHandByHcan;
  using CanFactories<PrivateKorvaneBrisa>::createHandSocketCan;

  /// A hand on a serial port, as KorvaneBrisa::createHandByRs485.
  static std::unique_ptr<PrivateKorvaneBrisa> createHandByRs485(HandType hand,
                                                                unsigned char device_id,
                                                                const std::string& port, int baud);

  /// A hand on a serial port, as KorvaneBrisa::createHandByUsb.
  static std::unique_ptr<PrivateKorvaneBrisa> createHandByUsb(HandType hand,
                                                              unsigned char device_id,
                                                              const std::string& port, int baud);

  ~PrivateKorvaneBrisa() override;
};

}  // namespace talvera::korvane
